// Every system call of a delivery fails once, and the process is killed at every one: nothing is
// lost, doubled, cut or left open, and the next pass ends the delivery. The calls come from a
// recorded run. A part of the positions; with FAULTS in the environment all of them.
#include "scripts/traced_driver.h"
#include "support.h"

#include <gtest/gtest.h>
#include <iostream>
#include <optional>
#include <set>

namespace {

// The errors that fit a call; the others can fail with other_errors.
const std::map<long, std::vector<int>> fitting_errors = {
    {SYS_openat, {EIO, ENOSPC, EACCES, EMFILE, ENOMEM, EROFS, EINTR, ESTALE}},
    {SYS_renameat, {EIO, ENOSPC, EACCES, ENOMEM, EROFS, EXDEV, ESTALE}},
    {SYS_mkdirat, {EIO, ENOSPC, EACCES, ENOMEM, EROFS, ESTALE}},
    {SYS_write, {EIO, ENOSPC, EINTR, EPIPE, cut_short}},
    {SYS_read, {EIO, EINTR, ENOMEM, ESTALE, cut_short}},
    {SYS_fsync, {EIO, ENOSPC, EINTR, EROFS}},
    {SYS_close, {EIO, EINTR}},
    {SYS_getppid, {ENOMEM}}, // stands before every allocation of the driver
    {SYS_brk, {ENOMEM}},
    {SYS_mmap, {ENOMEM}},
};
const std::vector<int> other_errors = {EIO, EACCES, ENOMEM, ESTALE, EINTR};

const std::string old_media = "the old media", new_media = "the new media";
const std::string old_metadata = "original filename=morning.mxf\ncodec=a\\nb\n";
const std::string new_metadata = "title=evening\n\nno value\n";
const std::string recorded = "original filename=clip.mxf\n";
const std::string in_place = "target/news.mxf";

std::string metadata_of(const fs::path &file) {
    return file.parent_path() / ("." + file.filename().string() + ".metadir/metadata");
}

// A whole replacement, or a first file that brought no metadata.
void plant(const fs::path &root, bool is_replacement) {
    fs::create_directories(root / "target");
    write_file(root / "watch/clip.mxf", new_media);
    if (!is_replacement)
        return;
    write_file(root / metadata_of("watch/clip.mxf"), new_metadata);
    write_file(root / in_place, old_media);
    write_file(root / metadata_of(in_place), old_metadata);
}

// The one file with this content; "" when it is not exactly one.
std::string place_of(const fs::path &root, const std::string &content) {
    std::vector<std::string> places;
    for (const auto &item : fs::recursive_directory_iterator(root))
        if (item.is_regular_file() && item.path().extension() != ".new" &&
            read_file(item.path()) == content)
            places.push_back(item.path().lexically_relative(root));
    return places.size() == 1 ? places[0] : "";
}

// Both files and every metadata list are there, whole and once. `left` gathers what the order of
// the steps leaves to an operator once the delivery has ended.
void expect_whole(const fs::path &root, bool is_replacement, bool has_ended,
                  std::set<std::string> &left) {
    SCOPED_TRACE(tree_of(root));
    const std::string new_file = place_of(root, new_media), old_file = place_of(root, old_media);
    EXPECT_TRUE(new_file == in_place || (!has_ended && new_file == "watch/clip.mxf")) << new_file;
    if (has_ended && read_file(root / metadata_of(in_place)).find(recorded) == std::string::npos)
        left.insert("name not recorded");
    if (!is_replacement)
        return;
    const bool is_archived = old_file.compare(0, 15, "target/ARCHIVE/") == 0;
    EXPECT_TRUE(is_archived || (!has_ended && old_file == in_place)) << old_file;
    const std::string unchanged = place_of(root, new_metadata);
    const std::string changed = place_of(root, new_metadata + recorded);
    const std::string new_list = unchanged.empty() ? changed : unchanged;
    const std::string old_list = place_of(root, old_metadata);
    EXPECT_NE(unchanged.empty(), changed.empty());
    EXPECT_NE(old_list, "");
    if (!has_ended)
        return;
    if (old_list != metadata_of(old_file))
        left.insert("old metadata apart");
    if (new_list != metadata_of(in_place))
        left.insert(new_list == metadata_of("watch/clip.mxf") ? "new metadata not fetched"
                                                              : "new metadata archived");
    if (old_file != "target/ARCHIVE/morning.mxf")
        left.insert("archived under another name");
}

// Does the fault explain what was left, and, unless it ended the process, was it reported?
bool is_explained(const std::string &left, const traced_fault &fault, const fs::path &root) {
    const auto has = [&root](const char *line) {
        return read_file(root / "errors").find(line) != std::string::npos;
    };
    const unsigned int renames = fault.at.renames_before;
    if (fault.what == killed)
        return (left == "old metadata apart" && renames == 1) ||
               (left == "new metadata not fetched" && renames == 3) ||
               (left == "name not recorded" && renames >= 3);
    if (left == "name not recorded")
        return has("Target meta save fail\n");
    if (left == "archived under another name" && fault.at.number != SYS_renameat)
        return has("Original filename: ''\n") || fault.at.number == SYS_newfstatat;
    return fault.at.number == SYS_renameat && has("Cannot move ");
}

using tally = std::map<std::string, unsigned int>;

// A fault in one pass, two passes more, and one more delivery.
void run_one(bool is_replacement, const traced_fault &fault, tally &counts) {
    SCOPED_TRACE("replacement " + std::to_string(is_replacement) + ", system call " +
                 std::to_string(fault.at.number) + ", no. " + std::to_string(fault.at.nth) +
                 ", fault " + std::to_string(fault.what));
    const temporary_tree tree;
    plant(tree.root, is_replacement);
    std::optional<traced_driver> driver(std::in_place, DRIVER, tree.root);
    const size_t descriptors = driver->descriptors();
    bool came = false;
    driver->pass_with(fault, came);
    ++counts[came ? "runs" : "calls that did not come"];
    EXPECT_EQ(driver->is_alive(), !came || fault.what != killed);
    std::set<std::string> left;
    expect_whole(tree.root, is_replacement, false, left);
    if (!driver->is_alive())
        driver.emplace(DRIVER, tree.root);
    driver->pass();
    driver->pass();
    expect_whole(tree.root, is_replacement, true, left);
    for (const std::string &what : left) {
        ++counts[what];
        EXPECT_TRUE(is_explained(what, fault, tree.root)) << what << "\n" << tree_of(tree.root);
    }
    EXPECT_TRUE(fault.what == killed || tree_of(tree.root).find(".new=") == std::string::npos);
    write_file(tree / "watch/third.mxf", "third");
    driver->pass();
    EXPECT_EQ(read_file(tree / in_place), "third");
    EXPECT_EQ(read_file(tree / metadata_of(in_place)), "original filename=third.mxf\n");
    ASSERT_TRUE(driver->is_alive());
    EXPECT_EQ(driver->descriptors(), descriptors);
}

// The calls to break. Of those that look at other processes, hundreds alike, a sample that thins
// out.
std::vector<traced_call> record(bool is_replacement) {
    const temporary_tree tree;
    plant(tree.root, is_replacement);
    bool came = false;
    std::vector<traced_call> calls =
        traced_driver(DRIVER, tree.root).pass_with({no_fault, {}}, came);
    std::set<std::string> left;
    expect_whole(tree.root, is_replacement, true, left);
    EXPECT_TRUE(left.empty());
    const auto is_passed_over = [](const traced_call &call) {
        unsigned int sampled = 1;
        while (sampled < call.nth)
            sampled += 1 + sampled / 2;
        return call.in_proc && sampled != call.nth;
    };
    calls.erase(std::remove_if(calls.begin(), calls.end(), is_passed_over), calls.end());
    return calls;
}

void run_all(bool kills, unsigned int part) {
    tally counts;
    unsigned int turn = 0;
    for (const bool is_replacement : {true, false})
        for (const traced_call &call : record(is_replacement)) {
            const auto row = fitting_errors.find(call.number);
            std::vector<int> faults = row == fitting_errors.end() ? other_errors : row->second;
            if (kills)
                faults.assign(call.number == SYS_getppid ? 0 : 1, killed);
            for (const int what : faults)
                if (turn++ % part == 0 || what == cut_short || getenv("FAULTS") != nullptr)
                    run_one(is_replacement, {what, call}, counts);
        }
    EXPECT_GT(counts["runs"], turn / part / 2);
    for (const auto &[what, count] : counts)
        std::cout << what << ": " << count << "\n";
}

TEST(Faults, EveryCallFailsOnce) {
    run_all(false, 4);
}

TEST(Faults, KilledAtEveryCall) {
    run_all(true, 2);
}

// What no fault shows without a crash of the machine: both syncs, around the rename.
TEST(Faults, MetadataIsSyncedBeforeAndAfterItsRename) {
    const std::vector<traced_call> calls = record(true);
    size_t last = calls.size();
    while (last > 0 && calls[last - 1].number != SYS_renameat)
        --last;
    ASSERT_TRUE(last > 1 && last < calls.size());
    EXPECT_EQ(calls[last - 2].number, SYS_fsync);
    EXPECT_EQ(calls[last].number, SYS_fsync);
}

} // namespace
