#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "metadata_file.h"
#include "player_tools.h"

using namespace zr::test;
using namespace zr::media;

namespace {

struct Given
{
    uint16_t sequence;
    std::string text;
    bool last = true;
    uint32_t timestamp = 0;
    uint32_t ssrc = 7;
};

Bytes packetOf(const Given &given)
{
    Bytes packet = rtp(given.sequence, given.timestamp, given.ssrc, given.last ? 96 | 0x80 : 96);
    packet.resize(12);
    packet.insert(packet.end(), given.text.begin(), given.text.end());
    return packet;
}

} // namespace

TEST(MetadataOfARecording, IsWrittenByWholeDocuments)
{
    const std::string head = "<tt:MetadataStream>";
    const std::string large(2U << 20U, ' ');
    struct Row
    {
        const char *what;
        std::vector<Given> packets;
        std::vector<std::string> documents;
    };
    const Row rows[] = {
        {"one each", {{1, head + "a"}, {2, head + "b"}}, {head + "a", head + "b"}},
        {"in pieces, out of order", {{65534, head, false}, {0, "c"}, {65535, "b", false}}, {head + "bc"}},
        {"begun within one", {{1, "rest"}, {2, head + "a"}}, {head + "a"}},
        {"a piece is missing", {{1, head, false}, {3, "c"}, {40, head + "d"}}, {head + "d"}},
        {"missing for good, a later one whole", {{1, head, false}, {40, head + "d"}}, {head + "d"}},
        {"twice, and too late", {{1, head + "a"}, {1, head + "a"}, {2, head + "b"}}, {head + "a", head + "b"}},
        {"counted anew",
         {{500, head + "a"}, {100, "x"}, {101, head + "b"}, {102, head + "c"}},
         {head + "a", head + "b", head + "c"}},
        {"another source", {{1, head, false}, {9000, head + "a", true, 0, 8}}, {head + "a"}},
        {"too large", {{1, head + large, false}, {2, "end"}, {3, head + "a"}}, {head + "a"}},
        {"bytes that are no text", {{1, head + "\xff\"\n"}}, {head + "\xef\xbf\xbd\"\n"}},
    };
    const std::filesystem::path folder(testing::TempDir() + "zr_metadata_" + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    for (const Row &row : rows)
    {
        SCOPED_TRACE(row.what);
        std::string log;
        MetadataFile file((folder / "a.mkv").string(), true, 90000,
                          [&log](bool, const std::string &text) { log += text + "\n"; });
        file.setBegin(TimePoint(), 0);
        for (const Given &given : row.packets)
            file.take(packetOf(given), TimePoint());
        file.finish();
        std::ifstream written(folder / "a.metadata.jsonl");
        std::vector<std::string> documents;
        for (std::string line; std::getline(written, line);)
            documents.push_back(nlohmann::json::parse(line)["xml"]);
        EXPECT_EQ(documents, row.documents) << log;
    }
    std::filesystem::remove_all(folder);
}

TEST(MetadataOfARecording, HasTheRecordingsTimes)
{
    const std::filesystem::path folder(testing::TempDir() + "zr_metadata_" + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    std::ofstream(folder / "a.metadata.jsonl") << "somebody's";
    MetadataFile file((folder / "a.mkv").string(), false, 90000, [](bool, const std::string &) {});
    const TimePoint first{std::chrono::seconds(100)};
    file.take(packetOf({1, "<?xml a", true, 0}), first + std::chrono::seconds(1));
    file.setClock({7, 90000, 1700000000250000000});
    file.setBegin(first, 250000000);
    // sent at once, 10 s apart by its time
    file.take(packetOf({2, "<?xml b", true, 900000}), first + std::chrono::seconds(1));
    file.finish();
    std::ifstream written(folder / "a.metadata-002.jsonl");
    const std::tuple<double, const char *> expected[] = {{0.75, "2023-11-14T22:13:19.250Z"},
                                                         {10.75, "2023-11-14T22:13:29.250Z"}};
    for (const auto &[seconds, utc] : expected)
    {
        std::string line;
        ASSERT_TRUE(std::getline(written, line));
        const auto found = nlohmann::json::parse(line);
        EXPECT_DOUBLE_EQ(found["seconds"], seconds);
        EXPECT_EQ(found["utc"], utc);
        EXPECT_EQ(found["clock"], "sender");
    }
    EXPECT_EQ(std::filesystem::file_size(folder / "a.metadata.jsonl"), 10U);
    std::filesystem::remove_all(folder);
}
