// Bits of the store that flip: each is found by verify, and before a live database is touched.
#ifdef QRTLN_DOMINO_SIM

#include "tests/client/simulated_server.h"

#include <cstdlib>
#include <random>

namespace qrtln {
namespace {

namespace fs = std::filesystem;
using test::OverTheSimulator;
using test::read_file;
using test::run_client;
using test::write_file;

class BitRot : public OverTheSimulator {
  protected:
    // The files whose content counts: the format file, objects, manifests and what stands beside
    // them, the index.
    std::vector<std::string> files() const {
        std::vector<std::string> found = {m_store + "/store.json",
                                          m_store + "/runtime/qrtln_DBIID.ini"};
        for (const char* folder : {"/objects", "/sets"})
            for (const auto& entry : fs::recursive_directory_iterator(m_store + folder))
                if (entry.is_regular_file())
                    found.push_back(entry.path());
        std::sort(found.begin(), found.end());
        return found;
    }
};

// QRTLN_LONG_TESTS=1 in the environment: a thousand flips instead of forty.
TEST_F(BitRot, EveryFlippedBitIsFoundByVerifyAndBeforeActivation) {
    full_backup();
    std::string set = full_backup(); // the second one writes the index
    run(0, {"prove"});
    const std::string live = m_server + "/data/names.nsf";
    const std::string before = read_file(live);
    const std::string object = object_file(set, live);
    std::mt19937 random(20261121);
    const int flips = std::getenv("QRTLN_LONG_TESTS") != nullptr ? 1000 : 40;
    int activations = 0;
    const std::vector<std::string> all = files();
    for (int i = 0; i < flips; ++i) {
        // Every tenth in the object that is then to be activated; sizes differ, so files come
        // first.
        const std::string& file = i % 10 == 0 ? object : all[random() % all.size()];
        const std::string whole = read_file(file);
        std::string damaged = whole;
        std::size_t bit = random() % (damaged.size() * 8);
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
        write_file(file, damaged);
        SCOPED_TRACE(file + ", bit " + std::to_string(bit));
        EXPECT_EQ(run_client({"verify", "--store", m_store}, {}).exit_code, 4);
        if (file == object) {
            run(4, {"restore", "names.nsf", "--set", set, "--activate"});
            EXPECT_EQ(read_file(live), before);
            ++activations;
        }
        write_file(file, whole);
    }
    EXPECT_EQ(run_client({"verify", "--store", m_store}, {}).exit_code, 0); // the flips were all
    std::printf("%d bits flipped in %zu files, %d of them before an activation\n", flips,
                all.size(), activations);
}

} // namespace
} // namespace qrtln

#endif
