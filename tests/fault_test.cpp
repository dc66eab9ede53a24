// Every system call of a delivery fails once, and the process is killed at every one: nothing is
// lost, doubled, cut or left open, and the next pass ends the delivery. The calls come from a
// recorded run. A part of the positions; with FAULTS in the environment all of them.
#include "support.h"
#include "tests/traced_driver.h"

#include <gtest/gtest.h>
#include <iostream>
#include <optional>
#include <set>

namespace {

constexpr size_t npos = std::string::npos;
const std::string old_media = "the old media", new_media = "the new media";
const std::string old_metadata = "original filename=morning.mxf\ncodec=a\\nb\n";
const std::string new_metadata = "title=evening\n\nno value\n";
const std::string recorded = "original filename=clip.mxf\n";
const std::string in_place = "target/news.mxf", original_place = "target/ARCHIVE/morning.mxf";

std::string metadata_of(const fs::path &file) {
    return file.parent_path() / ("." + file.filename().string() + ".metadir/metadata");
}

// A paragraph of the case file.
using delivery = std::map<char, std::string>;

bool starts_with(const delivery &kind, const std::string &text) {
    return kind.at('+').find(text) != npos;
}

// The planted files and the driver before its first pass.
struct stage {
    explicit stage(const delivery &kind) {
        make_tree(tree.root, replaced(kind.at('+'), "@R", tree.root));
        const std::string own = line_of(kind, '<');
        driver.emplace(DRIVER, tree.root, own.empty() ? "/dev/null" : tree / own);
    }
    temporary_tree tree;
    std::optional<traced_driver> driver;
};

// The one file with this content; "" when it is not exactly one.
std::string place_of(const fs::path &root, const std::string &content) {
    std::vector<std::string> places;
    for (const auto &item : fs::recursive_directory_iterator(root))
        if (item.is_regular_file() && item.path().extension() != ".new" &&
            read_file(item.path()) == content)
            places.push_back(item.path().lexically_relative(root));
    return places.size() == 1 ? places[0] : "";
}

// What keeps the delivery waiting, until it is closed.
unique_fd begin_use(const fs::path &root, const std::string &name) {
    const std::string path = root / name;
    if (name.empty())
        return unique_fd();
    if (fs::exists(path))
        return unique_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return bound_socket(path, SOCK_DGRAM);
}

// The calls whose failure means that there is no marker, so that a running item is replaced.
std::set<std::pair<long, unsigned int>> marker_calls;

bool is_untouched(const fs::path &root) {
    return place_of(root, new_media) == "watch/clip.mxf";
}

// Both files and every metadata list are there, whole and once. Returns what an operator would have
// to see to, were this the end of the delivery.
std::set<std::string> expect_whole(const fs::path &root, const delivery &kind, bool has_ended) {
    std::set<std::string> left;
    SCOPED_TRACE(tree_of(root));
    const std::string new_file = place_of(root, new_media), old_file = place_of(root, old_media);
    EXPECT_TRUE(new_file == in_place || (!has_ended && new_file == "watch/clip.mxf")) << new_file;
    if (read_file(root / metadata_of(in_place)).find(recorded) == npos)
        left.insert("name not recorded");
    if (!starts_with(kind, old_media))
        return left;
    const bool is_archived = fs::path(old_file).parent_path() == "target/ARCHIVE";
    EXPECT_TRUE(is_archived || (!has_ended && old_file == in_place)) << old_file;
    const std::string old_list = place_of(root, old_metadata);
    const std::string new_list =
        place_of(root, new_metadata) + place_of(root, new_metadata + recorded);
    EXPECT_TRUE(!old_list.empty() && fs::is_regular_file(root / new_list)) << new_list;
    if (old_list != metadata_of(old_file))
        left.insert("old metadata apart");
    if (new_list == metadata_of("watch/clip.mxf"))
        left.insert("new metadata not fetched");
    else if (new_list != metadata_of(in_place))
        left.insert("new metadata archived");
    if (starts_with(kind, "archived before"))
        EXPECT_EQ(place_of(root, "archived before"), original_place);
    else if (old_file != original_place)
        left.insert("archived under another name");
    return left;
}

// Does the fault explain what was left, and, unless it ended the process, was it reported?
bool is_explained(const std::string &left, const traced_fault &fault, const std::string &lines) {
    const unsigned int renames = fault.at.renames_before;
    const bool is_rename = fault.at.number == SYS_renameat;
    if (fault.what == killed)
        return (left == "old metadata apart" && renames == 1) ||
               (left == "new metadata not fetched" && renames == 3) ||
               (left == "name not recorded" && renames >= 3);
    if (left == "name not recorded")
        return lines.find("Target meta save fail\n") != npos;
    if (left == "archived under another name" && !is_rename)
        return lines.find("Original filename: ''\n") != npos || fault.at.number == SYS_newfstatat;
    return is_rename && lines.find("Cannot move ") != npos;
}

// A fault in one pass, two passes more, and one more delivery.
void run_one(const delivery &kind, const traced_fault &fault,
             std::map<std::string, unsigned int> &counts) {
    SCOPED_TRACE(kind.at('#') + testing::PrintToString(fault.at.number) + " no. " +
                 std::to_string(fault.at.nth) + ": " + std::to_string(fault.what));
    stage stage(kind);
    auto &[tree, driver] = stage;
    const size_t descriptors = driver->descriptors();
    bool came = false;
    {
        const unique_fd use = begin_use(tree.root, line_of(kind, '*'));
        driver->pass_with(fault, &came);
        if (use && !is_untouched(tree.root)) {
            if (starts_with(kind, "active.socket"))
                marker_calls.insert({fault.at.number, fault.at.nth});
            else // the service was refused a look at the holder
                EXPECT_NE(read_file(tree / "errors").find("Warning: a file in use may"), npos);
        }
    }
    ++counts[came ? "runs" : "calls that did not come"];
    EXPECT_EQ(driver->is_alive(), !came || fault.what != killed) << read_file(tree / "errors");
    expect_whole(tree.root, kind, false);
    if (!driver->is_alive())
        driver.emplace(DRIVER, tree.root, "/dev/null");
    driver->pass();
    driver->pass();
    for (const std::string &what : expect_whole(tree.root, kind, true)) {
        EXPECT_TRUE(is_explained(what, fault, read_file(tree / "errors"))) << what;
        ++counts[what];
    }
    EXPECT_TRUE(fault.what == killed || tree_of(tree.root).find(".new=") == npos);
    write_file(tree / "watch/third.mxf", "third");
    driver->pass();
    EXPECT_EQ(read_file(tree / in_place), "third");
    EXPECT_EQ(read_file(tree / metadata_of(in_place)), "original filename=third.mxf\n");
    ASSERT_TRUE(driver->is_alive());
    EXPECT_EQ(driver->descriptors(), descriptors);
}

std::vector<traced_call> record(const delivery &kind) {
    stage stage(kind);
    const unique_fd use = begin_use(stage.tree.root, line_of(kind, '*'));
    auto calls = stage.driver->pass_with({no_fault, {}});
    if (use)
        EXPECT_TRUE(is_untouched(stage.tree.root));
    else
        EXPECT_TRUE(expect_whole(stage.tree.root, kind, true).empty());
    return calls;
}

const std::vector<delivery> deliveries =
    read_cases(TEST_CASES "/faults.txt", {{"\\\\", "\1"}, {"\\n", "\2"}, {"\1", "\\"}});

void run_all(bool kills, unsigned int part) {
    std::map<std::string, unsigned int> counts;
    unsigned int turn = 0;
    for (const delivery &kind : deliveries)
        for (const traced_call &call : sampled(record(kind)))
            for (const int what : kills ? kill_at(call) : errors_that_fit(call))
                if (turn++ % part == 0 || what == cut_short || getenv("FAULTS") != nullptr)
                    run_one(kind, {what, call}, counts);
    EXPECT_GT(counts["runs"], turn / part / 2);
    EXPECT_LE(marker_calls.size(), 4U) << "its directory, the marker, its link, what that leads to";
    for (const auto &[what, count] : counts)
        std::cout << what << ": " << count << "\n";
}

TEST(Faults, EveryCallFailsOnce) {
    run_all(false, 3);
}

TEST(Faults, KilledAtEveryCall) {
    run_all(true, 1);
}

// What no fault shows without a crash of the machine: both syncs, around the rename.
TEST(Faults, MetadataIsSyncedBeforeAndAfterItsRename) {
    const std::vector<traced_call> calls = record(deliveries.at(5));
    size_t last = calls.size() - 2;
    while (last > 1 && calls[last].number != SYS_renameat)
        --last;
    EXPECT_EQ(calls[last - 1].number, SYS_fsync);
    EXPECT_EQ(calls[last + 1].number, SYS_fsync);
}

} // namespace
