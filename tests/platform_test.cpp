// The platform layer by its public interfaces: metadata, the clock, the list of descriptors.
#include "platform/include/metadata_v4.h"
#include "platform/include/process_util.h"
#include "platform/processes/proc_tables.h"
#include "tests/rows.h"
#include "tests/support.h"

#include <ctime>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

std::string shown(const char *text) {
    return text == nullptr ? "-" : text;
}

// A media file, its metadata directory, and a context and a list for them.
struct media_item {
    media_item() {
        write_file(tree / "item", "media");
        static_cast<void>(chown((tree / "item").c_str(), 12, 34)); // as root
        chmod((tree / "item").c_str(), 0640);
        fs::create_directory(metadir);
        metadata_v4_context_set_file_location(context, (tree / "item").c_str());
    }
    explicit media_item(const std::string &text) : media_item() {
        write_file(file, text);
        EXPECT_EQ(open(), 0);
    }
    ~media_item() {
        metadata_v4_metadata_context_destroy(list);
        metadata_v4_context_destroy(context);
    }
    int open() const { return metadata_v4_context_open_file_handles(context); }
    int load(int for_writing) const {
        return metadata_v4_metadata_context_load_metadata_from_file(list, context, for_writing,
                                                                    nullptr);
    }
    int save() const {
        return metadata_v4_metadata_context_write_metadata_to_file(list, context, 0, nullptr);
    }
    int add(const char *name, const char *value) const {
        return metadata_v4_metadata_context_add_name_value_pair(list, name, 0, value, 0, -1);
    }
    auto *entry(uint64_t index) const {
        return metadata_v4_metadata_context_read_entry(list, index);
    }
    std::string entries() const {
        std::string text;
        for (uint64_t i = 0; entry(i) != nullptr; ++i)
            text += shown(entry(i)->name) + "|" + shown(entry(i)->value) + "\n";
        return text;
    }

    temporary_tree tree;
    fs::path metadir = tree / ".item.metadir";
    fs::path file = metadir / "metadata";
    metadata_v4_context *context = metadata_v4_context_create();
    metadata_v4_metadata_context *list = metadata_v4_metadata_context_create();
};

// What a path is mapped to; "-" where that fails.
std::string mapped(int (*map)(char *, size_t, const char *), const std::string &path) {
    char buffer[512];
    if (map(buffer, sizeof(buffer), path.c_str()) < 0)
        return "-";
    std::string text = buffer;
    EXPECT_LT(map(buffer, text.size(), path.c_str()), 0) << "no room for the NUL";
    EXPECT_EQ(map(buffer, text.size() + 1, path.c_str()), 0);
    return text;
}

std::string metadir_of(const std::string &path) {
    return mapped(metadata_v4_file_to_metadir, path);
}

const std::string longest(255 - strlen("..metadir"), 'n');

struct item_path {
    const char *name;
    std::string path, folder, metadir;
};
const item_path item_paths[] = {
    {"Absolute", "/mnt/x/news.mxf", "/mnt/x", "/mnt/x/.news.mxf.metadir"},
    {"InTheRootFolder", "/news.mxf", "/", "/.news.mxf.metadir"},
    {"InTheWorkingFolder", "news.mxf", ".", ".news.mxf.metadir"},
    {"OfAnyBytes", "a b\n%s\xff", ".", ".a b\n%s\xff.metadir"},
    {"OfAMetadataDirectory", ".a.metadir", ".", "..a.metadir.metadir"},
    {"ThreeDots", "...", ".", ".....metadir"},
    {"Longest", longest, ".", "." + longest + ".metadir"},
    {"TooLong", longest + "n", ".", "-"},
    {"Empty", "", "-", "-"},
    {"OfAFolder", "x/", "-", "-"},
    {"Dot", "x/.", "-", "-"},
    {"DotDot", "x/..", "-", "-"},
};

void expect_location(const item_path &row) {
    EXPECT_EQ(metadir_of(row.path), row.metadir);
    if (row.metadir != "-") {
        EXPECT_EQ(mapped(metadata_v4_metadir_to_file, row.metadir), row.path);
        EXPECT_EQ(metadata_v4_context_is_metadata_name(row.metadir.c_str()), 1);
    }
    const media_item item;
    metadata_v4_context_set_file_location(item.context, row.path.c_str());
    EXPECT_EQ(shown(item.context->dir_path), row.folder);
    EXPECT_EQ(shown(item.context->metadir_name),
              row.metadir.substr(row.metadir.rfind('/') + 1)); // npos + 1 is 0
}

// A metadata file, its entries as NAME|VALUE, and the file after the second entry, where there is
// one, was given the name "k=\" and the value "\n=", and an entry like that was added.
struct metadata_case {
    const char *name;
    std::string text, entries, changed;
};
const metadata_case metadata_cases[] = {
    {"Empty", "", "", "k\\=\\\\=\\n=\n"},
    {"OrderAndDuplicates", "b=1\na=2\nb=3\n", "b|1\na|2\nb|3\n",
     "b=1\nk\\=\\\\=\\n=\nb=3\nk\\=\\\\=\\n=\n"},
    {"Escapes", "a\\=b\\\\=c\\n\\\\d=\\=\n", "a=b\\|c\n\\d=\\=\n",
     "a\\=b\\\\=c\\n\\\\d=\\=\nk\\=\\\\=\\n=\n"},
    {"UnknownEscapesStandForThemselves", "a\\x=\\t\\", "a\\x|\\t\\\n",
     "a\\x=\\t\\\nk\\=\\\\=\\n=\n"},
    {"HalfAnEntry", "name\n=value\n=\n", "name|-\n-|value\n-|\n",
     "name\nk\\=\\\\=\\n=\n=\nk\\=\\\\=\\n=\n"},
    {"EmptyLinesAndNoLastNewline", "\n\na=1\n\nb=2", "a|1\nb|2\n",
     "\n\na=1\n\nk\\=\\\\=\\n=\nk\\=\\\\=\\n=\n"},
    {"NoLastNewlineAfterOthers", "a=1\nb=2\n\nc=3", "a|1\nb|2\nc|3\n",
     "a=1\nk\\=\\\\=\\n=\n\nc=3\nk\\=\\\\=\\n=\n"},
    {"NulBytes",
     {"a=\0\nb=1\nc\0\n", 11},
     "-|-\nb|1\n-|-\n",
     std::string("a=\0\n", 4) + "k\\=\\\\=\\n=\n" + std::string("c\0\n", 3) + "k\\=\\\\=\\n=\n"},
    {"CarriageReturnsAndHighBytes", "\xff=\r\n", "\xff|\r\n", "\xff=\r\nk\\=\\\\=\\n=\n"},
};

void expect_round_trip(const metadata_case &row) {
    const media_item item(row.text);
    ASSERT_EQ(item.load(1), 0);
    EXPECT_EQ(item.entries(), row.entries);
    ASSERT_EQ(item.save(), 0);
    EXPECT_EQ(read_file(item.file), row.text);
    if (auto *second = item.entry(1)) {
        EXPECT_EQ(metadata_v4_metadata_context_set_name_value_pair(item.list, second, "k=\\", 0,
                                                                   "\n=", 0, -1),
                  0);
    }
    EXPECT_EQ(item.add("k=\\", "\n="), 0);
    ASSERT_EQ(item.save(), 0);
    EXPECT_EQ(read_file(item.file), row.changed);
    const std::string changed = item.entries();
    ASSERT_EQ(item.load(0), 0);
    EXPECT_EQ(item.entries(), changed);
}

const bool registered = register_rows("ItemPath", item_paths, expect_location) &&
                        register_rows("MetadataText", metadata_cases, expect_round_trip);

std::string rights_of(const fs::path &path) {
    struct stat status {};
    stat(path.c_str(), &status);
    return std::to_string(status.st_mode & 0777) + " " + std::to_string(status.st_uid) + " " +
           std::to_string(status.st_gid);
}

} // namespace

TEST(ItemPath, NamesOfNoMetadataDirectory) {
    for (const std::string &name :
         {std::string("news.mxf"), std::string("xnews.metadir"), std::string(".metadir"),
          std::string("..metadir"), std::string("...metadir"), std::string(".x.metadi"),
          std::string("x/"), "." + longest + "n.metadir"}) {
        EXPECT_EQ(mapped(metadata_v4_metadir_to_file, name), "-") << name;
        EXPECT_EQ(metadata_v4_context_is_metadata_name(name.c_str()), 0) << name;
    }
}

TEST(MetadataList, IsBoundOnlyByALoadForWriting) {
    const media_item item("a=1\n");
    EXPECT_EQ(item.load(1), 0);
    EXPECT_GE(item.list->descriptor, 0);
    EXPECT_EQ(item.load(0), 0);
    EXPECT_LT(item.list->descriptor, 0);
    EXPECT_EQ(item.list->entry_count, 1U);
}

TEST(MetadataList, MissingFileIsAnEmptyListForWriting) {
    const media_item item("");
    fs::remove(item.file);
    EXPECT_LT(item.load(0), 0);
    EXPECT_EQ(item.load(1), 0);
}

namespace {

struct refused_file {
    const char *name;
    void (*put)(const fs::path &file);
};
const refused_file refused_files[] = {
    {"Fifo", [](const fs::path &file) { mkfifo(file.c_str(), 0600); }},
    {"Link", [](const fs::path &file) { fs::create_symlink("/etc/passwd", file); }},
    {"Folder", [](const fs::path &file) { fs::create_directory(file); }},
    {"TooLarge",
     [](const fs::path &file) {
         write_file(file, "");
         fs::resize_file(file, (8U << 20) + 1);
     }},
};

void expect_refusal(const refused_file &row) {
    const media_item item("a=1\n");
    ASSERT_EQ(item.load(1), 0);
    fs::remove(item.file);
    row.put(item.file);
    alarm(30); // nothing waits for a writer
    EXPECT_LT(item.load(1), 0);
    alarm(0);
    EXPECT_LT(item.list->descriptor, 0);
    EXPECT_EQ(item.list->entry_count, 0U);
}

struct leftover {
    const char *name;
    void (*put)(const fs::path &temporary);
};
const leftover leftovers[] = {
    {"File", [](const fs::path &temporary) { write_file(temporary, "left by a crash"); }},
    {"Link", [](const fs::path &temporary) { fs::create_symlink("../item", temporary); }},
};

void expect_replacement(const leftover &row) {
    const media_item item("a=1\n");
    row.put(item.metadir / ".metadata.new");
    ASSERT_EQ(item.load(1), 0);
    ASSERT_EQ(item.add("b", "2"), 0);
    EXPECT_EQ(item.save(), 0);
    EXPECT_EQ(tree_of(item.tree.root), ".item.metadir/metadata=a=1\nb=2\n\nitem=media\n");
}

const bool more_registered = register_rows("MetadataRefused", refused_files, expect_refusal) &&
                             register_rows("MetadataLeftover", leftovers, expect_replacement);

} // namespace

TEST(MetadataFile, StandsWhereItCannotBeReplaced) {
    const media_item item("a=1\n");
    ASSERT_EQ(item.load(1), 0);
    ASSERT_EQ(item.add("large", std::string(8U << 20, 'x').c_str()), 0);
    EXPECT_LT(item.save(), 0) << "it could not be read again";
    ASSERT_EQ(item.load(1), 0);
    fs::create_directory(item.metadir / ".metadata.new");
    EXPECT_LT(item.save(), 0) << "no temporary file can be made";
    EXPECT_EQ(tree_of(item.metadir), ".metadata.new/\nmetadata=a=1\n\n");
}

TEST(MetadataFile, KeepsItsRights) {
    const media_item item("a=1\n");
    static_cast<void>(chown(item.file.c_str(), 56, 78)); // as root
    chmod(item.file.c_str(), 0604);
    const std::string before = rights_of(item.file);
    ASSERT_EQ(item.load(1), 0);
    ASSERT_EQ(item.save(), 0);
    EXPECT_EQ(rights_of(item.file), before);
}

TEST(MetadataFile, TakesItsRightsFromTheMediaFile) {
    const media_item item;
    fs::remove(item.metadir);
    item.context->flags |= METADATA_V4_CREATE_METADIR;
    ASSERT_EQ(item.open(), 0);
    ASSERT_EQ(item.load(1), 0);
    ASSERT_EQ(item.save(), 0);
    const std::string rights = rights_of(item.tree / "item");
    EXPECT_EQ(rights_of(item.file), rights);
    EXPECT_EQ(rights_of(item.metadir),
              replaced(rights, std::to_string(0640), std::to_string(0750)));
}

TEST(MetadataContext, MakesAMetadataDirectoryOnlyWhereItIsToAndBesideAFile) {
    const size_t before = open_descriptors();
    {
        const media_item item;
        fs::remove(item.metadir);
        EXPECT_LT(item.open(), 0) << "not asked for";
        item.context->flags |= METADATA_V4_CREATE_METADIR;
        fs::create_directory_symlink("/tmp", item.metadir);
        EXPECT_LT(item.open(), 0) << "a planted link";
        fs::remove(item.metadir);
        EXPECT_EQ(item.open(), 0);
        fs::remove(item.metadir);
        fs::remove(item.tree / "item");
        EXPECT_LT(item.open(), 0) << "no media file";
        EXPECT_EQ(tree_of(item.tree.root), "");
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST(MetadataContext, OpensAgainOnlyTheDirectoryThatItOpenedFirst) {
    const media_item item;
    const size_t before = open_descriptors();
    ASSERT_EQ(item.open(), 0);
    EXPECT_EQ(metadata_v4_context_open_the_file(item.context), 0);
    const std::string elsewhere = item.tree.root.string() + ".moved";
    fs::rename(item.tree.root, elsewhere);
    fs::copy(elsewhere, item.tree.root, fs::copy_options::recursive);
    EXPECT_LT(item.open(), 0) << "another one by its name";
    EXPECT_EQ(errno, ESTALE);
    EXPECT_EQ(open_descriptors(), before);
    fs::remove_all(elsewhere);
}

TEST(ProcessUtil, TheClockIsMonotonicInMicroseconds) {
    const auto now = [] {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC, &time);
        return static_cast<uint64_t>(time.tv_sec * 1000000 + time.tv_nsec / 1000);
    };
    const uint64_t before = now(), between = monotonic_clock_us();
    EXPECT_LE(before, between);
    EXPECT_LE(between, now());
}

TEST(ProcessUtil, TheDumpListsEachDescriptorOnce) {
    const temporary_tree tree;
    write_file(tree / "file", "");
    const unique_fd fd(open((tree / "file").c_str(), O_RDONLY | O_CLOEXEC));
    const captured_output output;
    const size_t count = open_descriptors() - 1; // that of its own listing
    fd_debug_dump_open_files(stderr);
    const std::string text = output.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), count);
    EXPECT_NE(text.find("fd " + std::to_string(fd.get()) + ": " + (tree / "file").string() + "\n"),
              std::string::npos)
        << text;
}

namespace {

bool is_mapped(std::string line, const std::string &overlay_name) {
    const unique_file table(fmemopen(line.data(), line.size(), "r"));
    return maps_file(table.get(), {makedev(0xfe, 0x1a), 4711}, overlay_name);
}

} // namespace

// On an overlay, kernels before 6.6 name the file below.
TEST(ProcTables, MappingsAreTheFilesByDeviceAndInodeOrOnAnOverlayByInodeOrName) {
    for (const auto &[line, is_file, is_on_overlay] :
         {std::tuple("7f-80 r--p 00 fe:1a 4711    /a\n", true, true),
          {"7f-80 r--p 00 fe:1b 4711    /a\n", false, true},
          {"7f-80 r--p 00 fe:1b 47110    /a/name\n", false, true},
          {"7f-80 r--p 00 fe:1a 47110    /a name\n", false, false},
          {"7f-80 r--p 00 00:00 0 \n", false, false},
          {"7f-80 r--p\n", false, false}}) {
        EXPECT_EQ(is_mapped(line, ""), is_file) << line;
        EXPECT_EQ(is_mapped(line, "name"), is_on_overlay) << line;
    }
}
