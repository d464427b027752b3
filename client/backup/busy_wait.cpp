#include "client/backup/busy_wait.h"

#include "client/base/interrupt.h"

#include <algorithm>
#include <poll.h>

namespace qrtln {

bool is_busy(const ServerStatus& status) {
    constexpr unsigned backup_in_progress = 3748;
    return status.number == backup_in_progress || status.number == status_in_use;
}

bool BusyWait::pause() {
    using namespace std::chrono;
    if (m_left <= milliseconds(0) || interrupt_signal() != 0)
        return false;
    const milliseconds pause = std::min<milliseconds>(m_left, seconds(1));
    const auto begun = steady_clock::now();
    pollfd interrupt{interrupt_descriptor(), POLLIN, 0};
    (void)::poll(&interrupt, 1, static_cast<int>(pause.count()));
    // A pause that was cut short by another signal counts whole: the wait has an end in any case.
    m_left -= std::max(pause, duration_cast<milliseconds>(steady_clock::now() - begun));
    return interrupt_signal() == 0;
}

} // namespace qrtln
