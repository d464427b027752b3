#include "notes_simulator/log/control_file.h"

#include "notes_simulator/base/status.h"
#include "notes_simulator/log/log_file.h"

#include <fcntl.h>

#include <algorithm>
#include <stdexcept>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

constexpr std::string_view kControlMagic = "SIMLCTL1";
constexpr std::size_t kControlSize = 4096;

} // namespace

std::optional<ControlFile> ControlFile::read(const Server& server) {
    const fs::path path = server.logs / "nlogctrl.lfh";
    std::error_code error;
    if (!fs::exists(path, error)) {
        return std::nullopt;
    }
    const LogFile file(path, O_RDONLY);
    const Bytes bytes = readAt(file.fd(), kControlSize, 0);
    ControlFile control;
    try {
        ByteReader reader(bytes);
        const std::string magic = reader.text(kControlMagic.size());
        const std::uint32_t sum = reader.u32();
        if (magic != kControlMagic || sum != checksum(std::span(bytes).subspan(12))) {
            throw StatusError(kLogDamaged, path.string());
        }
        reader.u32();
        control.logId = reader.id16();
        control.firstExtent = reader.u32();
        control.activeExtent = reader.u32();
        control.position = reader.u64();
        control.nextRecord = reader.u64();
        control.totalBytes = reader.u64();
        control.archived.resize(std::min<std::size_t>(reader.u32(), kControlSize / 4));
        for (std::uint32_t& number : control.archived) {
            number = reader.u32();
        }
    } catch (const std::out_of_range&) {
        throw StatusError(kLogDamaged, path.string());
    }
    return control;
}

void ControlFile::write(const Server& server) const {
    ByteWriter body;
    body.text(kControlMagic);
    body.u32(0); // the checksum
    body.u32(0);
    body.raw(logId);
    body.u32(firstExtent);
    body.u32(activeExtent);
    body.u64(position);
    body.u64(nextRecord);
    body.u64(totalBytes);
    body.u32(static_cast<std::uint32_t>(archived.size()));
    for (const std::uint32_t number : archived) {
        body.u32(number);
    }
    if (body.bytes.size() > kControlSize) {
        throw StatusError(kNotReadyToArchive,
                          "too many extents archived before the first one that is ready");
    }
    body.bytes.resize(kControlSize);
    ByteWriter sum;
    sum.u32(checksum(std::span(body.bytes).subspan(12)));
    std::copy(sum.bytes.begin(), sum.bytes.end(), body.bytes.begin() + 8);
    // One page, so that a killed process leaves the old or the new content.
    const LogFile file(server.logs / "nlogctrl.lfh", O_RDWR | O_CREAT);
    writeAt(file.fd(), body.bytes, 0);
}

} // namespace notes_sim
