// Every call of a delivery, and of a start, reload and stop, fails once with each error that fits,
// and the process is killed at it: nothing is lost, doubled, cut or left open, and the next pass
// ends the delivery.
#include "tests/fault_layer.h"

#include "base/diagnostics.h"
#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "config/watch_entry.h"
#include "platform/include/process_util.h"
#include "service/main_loop.h"
#include "service/single_instance.h"
#include "tests/support.h"

#include <gtest/gtest.h>
#include <iostream>

namespace {

const std::string old_media = "the old media", new_media = "the new media";
const std::string old_metadata = "original filename=morning.mxf\ncodec=a\\nb\n";
const std::string new_metadata = "title=evening\n\nno value\n", taken = "archived before";
const std::string recorded = "original filename=clip.mxf\n";
const std::string in_place = "target/news.mxf", arriving = "watch/clip.mxf";

const std::string no_tree;

enum class source { entry, reload, rescan, service, service_on_tree };
enum class use { none, own, other, running };

struct delivery {
    bool replaces, has_metadata, name_is_taken;
    source from;
    use during; // the pass with the fault
    bool is_left_alone() const { return during == use::other || during == use::running; }
};

std::string metadata_of(const fs::path &file) {
    return file.parent_path() / ("." + file.filename().string() + ".metadir/metadata");
}

void plant(const fs::path &root, const delivery &kind) {
    write_file(root / arriving, new_media);
    write_file(root / "program", "");
    fs::create_directories(root / "target");
    fs::create_directories(root / "Upload");
    fs::create_symlink("target", root / "Play");
    fs::create_symlink("../watch", root / "Upload/news.mxf");
    write_file(root / "event.toml", "[event]\n'watch path' = '" + (root / "watch").string() +
                                        "'\n'match pattern' = ['x', 'mxf$']\n'target file' = '" +
                                        (root / in_place).string() + "'\n");
    if (kind.replaces)
        write_file(root / in_place, old_media);
    if (kind.has_metadata)
        write_file(root / metadata_of(arriving), new_metadata);
    if (kind.has_metadata && kind.replaces)
        write_file(root / metadata_of(in_place), old_metadata);
    if (kind.name_is_taken)
        write_file(root / "target/ARCHIVE/morning.mxf", taken);
}

// The order of main().
void live(const std::string &tree) {
    sleeps = stop_count = 0;
    hup_count = 0;
    configuration.clear();
    if (service_already_running())
        return diag("This service is already running.\n");
    if (!tree.empty())
        configuration = build_directory_configuration(tree);
    else if (!try_load_configuration())
        return diag("Failed to load configuration.\n");
    if (configuration.empty())
        return diag("Nothing to watch.\n");
    if (tree.empty() && !write_pid_file())
        return;
    util_check_and_unmask_common_signals();
    install_signal_handlers();
    run_main_loop(tree);
    if (tree.empty())
        remove_pid_file();
    fd_debug_dump_open_files(stderr);
    diag("The service has stopped.\n");
}

void pass(const delivery &kind) {
    if (kind.from >= source::service)
        return live(kind.from == source::service ? no_tree : redirected_root);
    if (kind.from == source::reload) {
        configuration.clear();
        static_cast<void>(try_load_configuration());
    } else if (kind.from == source::rescan) {
        configuration = build_directory_configuration(redirected_root);
    }
    run_check();
}

// The lock of a service that has stopped ends with its process.
void end_service() {
    unique_fd(std::exchange(instance_lock_fd, -1)).reset();
    instance_lock_held = false;
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

// Both files and every metadata list are there, whole and once. Returns what an operator would have
// to see to, were this the end of the delivery.
std::set<std::string> expect_whole(const fs::path &root, const delivery &kind, bool has_ended) {
    std::set<std::string> left;
    SCOPED_TRACE(tree_of(root));
    const std::string new_file = place_of(root, new_media), old_file = place_of(root, old_media);
    EXPECT_TRUE(new_file == in_place || (!has_ended && new_file == arriving)) << new_file;
    if (read_file(root / metadata_of(in_place)).find(recorded) == std::string::npos)
        left.insert("name not recorded");
    const std::string new_list =
        place_of(root, new_metadata) + place_of(root, new_metadata + recorded);
    if (kind.has_metadata && new_list != metadata_of(in_place)) {
        EXPECT_TRUE(fs::is_regular_file(root / new_list));
        left.insert(new_list == metadata_of(arriving) ? "new metadata not fetched"
                                                      : "new metadata archived");
    }
    const bool is_archived = fs::path(old_file).parent_path() == "target/ARCHIVE";
    EXPECT_TRUE(is_archived || !kind.replaces || (!has_ended && old_file == in_place)) << old_file;
    EXPECT_TRUE(!kind.name_is_taken || place_of(root, taken) == "target/ARCHIVE/morning.mxf");
    if (!kind.replaces || !kind.has_metadata)
        return left;
    const std::string old_list = place_of(root, old_metadata);
    EXPECT_NE(old_list, "");
    if (old_list != metadata_of(old_file))
        left.insert("old metadata apart");
    if (!kind.name_is_taken && old_file != "target/ARCHIVE/morning.mxf")
        left.insert("archived under another name");
    return left;
}

struct fault {
    fault_place at;
    int what;
    size_t position;
    bool kills() const { return what <= kill_before; }
};

// Does the fault explain what was left, and, unless it ended the process, was it reported?
bool is_explained(const std::string &left, const fault &fault, const std::string &lines) {
    const std::string name = fault.at.name;
    const auto says = [&](const char *text) { return lines.find(text) != std::string::npos; };
    const auto renames =
        std::count_if(calls->names, calls->names + calls->count,
                      [](const char *called) { return std::string(called) == "renameat"; }) -
        (name == "renameat" && fault.what == kill_before ? 1 : 0);
    if (fault.kills())
        return (left == "old metadata apart" && renames == 1) ||
               (left == "new metadata not fetched" && renames == 3) ||
               (left == "name not recorded" && renames >= 3);
    // An interrupted call is made again.
    if (fault.what == EINTR && (name == "read" || name == "write" || name == "fsync"))
        return false;
    if (left == "name not recorded")
        return says("Target meta save fail\n");
    if (left == "archived under another name" && name != "renameat")
        return says("Original filename: ''\n") || name == "fstatat";
    return name == "renameat" && says("Cannot move ");
}

// The passes that follow, and one more delivery.
void expect_end(const fs::path &root, const delivery &kind, const fault &fault) {
    pass(kind);
    end_service();
    pass(kind);
    const std::string lines = read_file(root / "errors");
    for (const std::string &what : expect_whole(root, kind, true))
        EXPECT_TRUE(is_explained(what, fault, lines)) << what << "\n" << lines;
    EXPECT_TRUE(fault.kills() || tree_of(root).find(".new=") == std::string::npos);
    end_service();
    write_file(root / "watch/third.mxf", "third");
    pass(kind);
    end_service();
    EXPECT_EQ(read_file(root / in_place), "third");
    EXPECT_EQ(read_file(root / metadata_of(in_place)), "original filename=third.mxf\n");
}

void expect_stopped(const fs::path &root, const fault &fault) {
    const std::string lines = read_file(root / "errors");
    const auto says = [&](const char *text) { return lines.find(text) != std::string::npos; };
    EXPECT_TRUE(says("The service has stopped.\n")
                    ? says("Reloading config, SIGHUP\n")
                    : says("Failed to load") || says("Nothing to watch") ||
                          says("Unable to write PID") || says("already running"))
        << lines;
    EXPECT_TRUE(!fs::exists(root / "pid") || std::string(fault.at.name) == "unlink");
}

// What keeps the delivery waiting, or keeps the lease from answering.
void use_file(const fs::path &root, use during, unique_fd &own,
              std::optional<child_process> &other) {
    if (during == use::own || during == use::other)
        own = unique_fd(open((root / arriving).c_str(), O_RDONLY | O_CLOEXEC));
    if (during == use::running)
        fs::create_symlink(root / "socket",
                           root / "target/.news.mxf.metadir/.media.item.active.socket");
    if (during == use::other || during == use::running)
        other.emplace([&] {
            static unique_fd held;
            held = during == use::running
                       ? bound_socket(root / "socket", SOCK_DGRAM)
                       : unique_fd(open((root / arriving).c_str(), O_RDONLY | O_CLOEXEC));
        });
}

// In a process of its own: the pass with the fault, which may be the end of it.
void begin_delivery(const fs::path &root, const delivery &kind, const fault &fault) {
    unique_fd own;
    std::optional<child_process> other;
    use_file(root, kind.during, own, other);
    const size_t before = open_descriptors();
    begin_faults(fault.at, fault.what);
    pass(kind);
    end_faults();
    end_service();
    EXPECT_EQ(open_descriptors(), before);
    if (kind.from >= source::service)
        expect_stopped(root, fault);
    const bool is_untouched = place_of(root, new_media) == arriving;
    if (kind.during == use::running)
        fs::remove(root / "target/.news.mxf.metadir/.media.item.active.socket");
    if (kind.is_left_alone() && !is_untouched) {
        ++calls->touched;
        EXPECT_TRUE(kind.during == use::running ||
                    read_file(root / "errors").find("Warning: a file in use may") !=
                        std::string::npos);
    }
}

// Ends with the status of a process that runs the function; 0 when nothing failed in it.
template<typename Run> int status_of(Run run) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        [&]() noexcept { run(); }(); // an exception ends the process, as it would the service
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

void run_one(const delivery &kind, const fault &fault) {
    SCOPED_TRACE(std::string(fault.at.name) + " no. " + std::to_string(fault.at.nth) + ": " +
                 std::to_string(fault.what));
    const temporary_tree tree;
    plant(tree.root, kind);
    const auto in_child = [&](auto run) {
        return status_of([&] {
            alarm(20); // no pass waits
            dup2(open((tree / "errors").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), 2);
            redirected_root = tree.root;
            configuration_path = tree / "event.toml";
            pid_file_path = tree / "pid";
            if (kind.from == source::entry)
                static_cast<void>(try_load_configuration());
            run();
        });
    };
    const int status = in_child([&] {
        begin_delivery(tree.root, kind, fault);
        expect_whole(tree.root, kind, false);
        expect_end(tree.root, kind, fault);
    });
    calls->runs += calls->came ? 1 : 0;
    if (calls->came && fault.kills()) {
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        expect_whole(tree.root, kind, false);
        EXPECT_EQ(in_child([&] { expect_end(tree.root, kind, fault); }), 0);
    } else {
        EXPECT_EQ(status, 0) << read_file(tree / "errors");
    }
}

#ifdef __SANITIZE_ADDRESS__
constexpr size_t part = 5;
#else
constexpr size_t part = 1;
#endif

std::vector<int> errors_that_fit(const std::string &call) {
    static const std::map<std::string, std::vector<int>> known = {
        {"openat", {EIO, ENOSPC, EACCES, EMFILE, ENOMEM, EROFS, EINTR}},
        {"renameat", {ENOENT, EIO, ENOSPC, EDQUOT, EACCES, ENOMEM, EROFS, EXDEV, ESTALE}},
        {"mkdirat", {EIO, ENOSPC, EACCES, ENOMEM, EROFS}},
        {"write", {EIO, ENOSPC, EDQUOT, EINTR, cut_short}},
        {"read", {EIO, EINTR, ENOMEM, cut_short}},
        {"fsync", {EIO, ENOSPC, EDQUOT, EINTR, EROFS}},
        {"close", {EIO, EINTR}},
        {"closedir", {EIO}},
        {"fclose", {EIO, ENOSPC}},
        {"flock", {EAGAIN, EINTR, ENOLCK}},
        {"operator new", {ENOMEM}},
        {"calloc", {ENOMEM}},
        {"strdup", {ENOMEM}},
        {"strndup", {ENOMEM}},
    };
    const auto row = known.find(call);
    return row != known.end() ? row->second : std::vector<int>{EIO, EACCES, ENOMEM, EINTR};
}

bool changes_the_disk(const std::string &call) {
    return call == "renameat" || call == "mkdirat" || call == "openat" || call == "write" ||
           call == "unlink" || call == "fopen" || call == "fclose";
}

bool is_sampled(ptrdiff_t nth) {
    ptrdiff_t step = 1;
    while (step < nth)
        step += 1 + step / 4;
    return step == nth;
}

// Of the calls that look at other processes, hundreds alike, a part that thins out.
std::vector<fault> faults_of(const delivery &kind, bool kills) {
    run_one(kind, {{"", 0}, no_fault, 0});
    std::vector<fault> all;
    std::map<const char *, unsigned int> seen;
    for (size_t i = 0; i < calls->count; ++i) {
        const char *name = calls->names[i];
        const unsigned int nth = ++seen[name];
        const auto total = std::count(calls->names, calls->names + calls->count, name);
        if ((!is_sampled(nth) && !is_sampled(total + 1 - nth)) ||
            (kills && std::string(name) == "operator new"))
            continue;
        std::vector<int> what = errors_that_fit(name);
        if (kills)
            what = changes_the_disk(name) ? std::vector<int>{kill_before, kill_after}
                                          : std::vector<int>{kill_before};
        for (const int one : what) // only the first look finds ENOENT doubtful
            if (one != ENOENT || nth == 1)
                all.push_back({{name, nth}, one, i});
    }
    return all;
}

// Two processes at a time.
void run_all(const delivery &kind, bool kills, unsigned int least_runs,
             unsigned int most_touched = 0) {
    calls = new_fault_log();
    const std::vector<fault> faults = faults_of(kind, kills);
    ASSERT_FALSE(testing::Test::HasFailure());
    std::vector<std::pair<pid_t, fault_log *>> workers;
    for (size_t worker = 0; worker < 2; ++worker) {
        calls = new_fault_log();
        fflush(nullptr);
        workers.emplace_back(fork(), calls);
        if (workers.back().first != 0)
            continue;
        for (size_t i = worker * part; i < faults.size(); i += 2 * part)
            run_one(kind, faults[i]);
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    unsigned int runs = 0, touched = 0;
    for (const auto &[pid, log] : workers) {
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0);
        runs += log->runs;
        touched += log->touched;
    }
    std::cout << runs << " runs of " << faults.size() << "\n";
    EXPECT_GE(runs, least_runs / part);
    EXPECT_LE(touched, most_touched);
}

constexpr delivery first_delivery = {false, false, false, source::entry, use::none};
constexpr delivery replacement = {true, true, false, source::entry, use::none};

TEST(Faults, FirstDelivery) {
    run_all(first_delivery, false, 150);
}

TEST(Faults, Replacement) {
    run_all(replacement, false, 200);
}

TEST(Faults, ReplacementWithoutMetadata) {
    run_all({true, false, false, source::entry, use::none}, false, 150);
}

TEST(Faults, ArchiveNameIsTaken) {
    run_all({true, true, true, source::entry, use::none}, false, 200);
}

// What stands at the marker's place cannot be told: the item does not count as running.
TEST(Faults, RunningItem) {
    run_all({true, true, false, source::entry, use::running}, false, 110, 20);
}

TEST(Faults, WalkOwnFile) {
    run_all({false, false, false, source::entry, use::own}, false, 200);
}

TEST(Faults, WalkFileOfAnotherProcess) {
    run_all({false, false, false, source::entry, use::other}, false, 100, 1000);
}

TEST(Faults, Reload) {
    run_all({false, true, false, source::reload, use::none}, false, 150);
}

TEST(Faults, Rescan) {
    run_all({false, true, false, source::rescan, use::none}, false, 150);
}

TEST(Faults, StartReloadStop) {
    run_all({false, true, false, source::service, use::none}, false, 220);
}

TEST(Faults, StartOnTree) {
    run_all({false, true, false, source::service_on_tree, use::none}, false, 200);
}

// What only a crash of the machine would show: both syncs, around the last rename.
TEST(Faults, MetadataIsSynced) {
    calls = new_fault_log();
    run_one(replacement, {{"", 0}, no_fault, 0});
    const std::vector<std::string> names(calls->names, calls->names + calls->count);
    const auto last = std::find(names.rbegin(), names.rend(), "renameat");
    ASSERT_NE(last, names.rend());
    EXPECT_EQ(*(last - 1), "fsync");
    EXPECT_EQ(*(last + 1), "fsync");
}

TEST(Kills, FirstDelivery) {
    run_all(first_delivery, true, 55);
}

TEST(Kills, Replacement) {
    run_all(replacement, true, 65);
}

TEST(Kills, StartReloadStop) {
    run_all({true, true, false, source::service, use::none}, true, 95);
}

} // namespace
