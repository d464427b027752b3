// Bits of the store that flip: each is found by verify, and before a live database is touched.
#include "tests/client/simulated_server.h"

#include <random>

namespace qrtln::test {

class BitRot : public OverTheSimulator {};

// QRTLN_LONG_TESTS=1 in the environment: a thousand flips instead of forty.
TEST_F(BitRot, EveryFlippedBitIsFoundByVerifyAndBeforeActivation) {
    backup(0);
    const std::string set = backup(0)["set"]; // the second one writes the index
    run(0, {"prove"});
    const std::string live = m_data + "/names.nsf", before = read_file(live);
    // The files whose content counts: the format file, objects, manifests and what stands beside
    // them, the index. Every tenth flip is in an object that is then to be activated.
    const std::string object = object_file(set, live);
    Words files = {m_store + "/store.json", m_store + "/runtime/qrtln_DBIID.ini"};
    for (const char* folder : {"/objects", "/sets"})
        for (const auto& entry : fs::recursive_directory_iterator(m_store + folder))
            if (entry.is_regular_file())
                files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    std::mt19937 random(20261121);
    const int flips = std::getenv("QRTLN_LONG_TESTS") != nullptr ? 1000 : 40;
    int activations = 0;
    for (int i = 0; i < flips; ++i) {
        const std::string& file = i % 10 == 0 ? object : files[random() % files.size()];
        const std::string whole = read_file(file);
        const std::size_t bit = random() % (whole.size() * 8);
        std::string damaged = whole;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
        write_file(file, damaged);
        SCOPED_TRACE(file + ", bit " + std::to_string(bit));
        EXPECT_EQ(verify(), 4);
        if (file == object) {
            run(4, {"restore", "names.nsf", "--set", set, "--activate"});
            EXPECT_EQ(read_file(live), before);
            ++activations;
        }
        write_file(file, whole);
    }
    EXPECT_EQ(verify(), 0); // the flips were all
    std::printf("%d bits flipped in %zu files, %d of them before an activation\n", flips,
                files.size(), activations);
}

} // namespace qrtln::test
