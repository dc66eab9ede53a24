// The platform layer by its public interfaces: metadata, the clock, tables of mappings.
#include "platform/include/metadata_v4.h"
#include "platform/include/process_util.h"
#include "platform/processes/proc_tables.h"
#include "tests/support.h"

#include <chrono>
#include <sys/sysmacros.h>

namespace {

std::string shown(const char *text) {
    return text == nullptr ? "-" : text;
}

// A media file, its metadata directory, and a context and a list for them.
struct media_item : temporary_tree {
    explicit media_item(const std::string &text = "a=1\n") {
        make_tree(root, {{"item", "media"}, {".item.metadir/metadata", text}});
        metadata_v4_context_set_file_location(context, (root / "item").c_str());
        context->flags |= METADATA_V4_CREATE_METADIR;
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
    auto *entry(uint64_t index) const {
        return metadata_v4_metadata_context_read_entry(list, index);
    }
    std::string entries() const {
        std::string text;
        for (uint64_t i = 0; entry(i) != nullptr; ++i)
            text += shown(entry(i)->name) + "|" + shown(entry(i)->value) + "\n";
        return text;
    }

    std::string file = root / ".item.metadir/metadata";
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

const std::string longest(255 - strlen("..metadir"), 'n');

const struct item_path {
    const char *name;
    std::string path, folder, metadir;
} item_paths[] = {
    {"Absolute", "/mnt/x/news.mxf", "/mnt/x", "/mnt/x/.news.mxf.metadir"},
    {"InTheRootFolder", "/news.mxf", "/", "/.news.mxf.metadir"},
    {"InTheWorkingFolder", "a b\n%s\xff", ".", ".a b\n%s\xff.metadir"},
    {"Longest", longest, ".", "." + longest + ".metadir"},
    {"TooLong", longest + "n", ".", "-"},
    {"Empty", "", "-", "-"},
    {"OfAFolder", "x/", "-", "-"},
    {"DotDot", "x/..", "-", "-"},
};

void expect_location(const item_path &row) {
    EXPECT_EQ(mapped(metadata_v4_file_to_metadir, row.path), row.metadir);
    const bool has_metadir = row.metadir != "-";
    EXPECT_EQ(metadata_v4_context_is_metadata_name(row.metadir.c_str()), has_metadir);
    for (const char *name : {"xnews.metadir", "..metadir", "...metadir", ".x.metadi"})
        EXPECT_EQ(mapped(metadata_v4_metadir_to_file, name), "-") << name;
    EXPECT_EQ(mapped(metadata_v4_metadir_to_file, row.metadir), has_metadir ? row.path : "-");
    const media_item item;
    metadata_v4_context_set_file_location(item.context, row.path.c_str());
    EXPECT_EQ(shown(item.context->dir_path), row.folder);
    EXPECT_EQ(shown(item.context->metadir_name), row.metadir.substr(row.metadir.rfind('/') + 1));
}

// A metadata file, its entries as NAME|VALUE, and the file after an entry was added and the second
// one, where there is one, changed. "K" is the line for the name "k=\" and the value "\n=", which
// both get.
const struct metadata_case {
    const char *name;
    std::string text, entries, changed;
} metadata_cases[] = {
    {"Empty", "", "", "K"},
    {"OrderAndDuplicates", "b=1\na=2\nb=3\n", "b|1\na|2\nb|3\n", "b=1\nKb=3\nK"},
    {"Escapes", "a\\=b\\\\=c\\n\\\\d=\\=\n", "a=b\\|c\n\\d=\\=\n", "a\\=b\\\\=c\\n\\\\d=\\=\nK"},
    {"UnknownEscapesStandForThemselves", "a\\x=\\t\\", "a\\x|\\t\\\n", "a\\x=\\t\\\nK"},
    {"HalfAnEntry", "name\n=value\n=\n", "name|-\n-|value\n-|\n", "name\nK=\nK"},
    {"EmptyLinesAndNoLastNewline", "\n\na=1\n\nb=2", "a|1\nb|2\n", "\n\na=1\n\nKK"},
    {"NulBytes", {"a=\0\nb=1\nc\0\n", 11}, "-|-\nb|1\n-|-\n", {"a=\0\nKc\0\nK", 9}},
};

void expect_round_trip(const metadata_case &row) {
    const media_item item(row.text);
    ASSERT_EQ(item.open(), 0);
    ASSERT_EQ(item.load(1), 0);
    EXPECT_EQ(item.entries(), row.entries);
    ASSERT_EQ(item.save(), 0);
    EXPECT_EQ(read_file(item.file), row.text);
    if (auto *second = item.entry(1))
        metadata_v4_metadata_context_set_name_value_pair(item.list, second, "k=\\", 0, "\n=", 0,
                                                         -1);
    metadata_v4_metadata_context_add_name_value_pair(item.list, "k=\\", 0, "\n=", 0, -1);
    ASSERT_EQ(item.save(), 0);
    EXPECT_EQ(read_file(item.file), replaced(row.changed, "K", "k\\=\\\\=\\n=\n"));
    const std::string changed = item.entries();
    ASSERT_EQ(item.load(0), 0);
    EXPECT_EQ(item.entries(), changed);
}

const bool registered = register_rows("ItemPath", item_paths, expect_location) &&
                        register_rows("MetadataText", metadata_cases, expect_round_trip);

std::string rights_of(const fs::path &path) {
    struct stat status {};
    stat(path.c_str(), &status);
    return std::to_string(status.st_mode & 07777) + " " + std::to_string(status.st_uid);
}

} // namespace

TEST(Metadata, MissingFileIsAnEmptyListForWriting) {
    const media_item item;
    fs::remove(item.file);
    ASSERT_EQ(item.open(), 0);
    EXPECT_LT(item.load(0), 0);
    EXPECT_EQ(item.load(1), 0);
    fs::create_symlink("../item", item.file);
    EXPECT_LT(item.load(1), 0) << "a planted link";
    EXPECT_LT(item.list->descriptor, 0);
}

TEST(Metadata, KeepsItsRightsOrTakesThemFromTheMediaFile) {
    const media_item item;
    static_cast<void>(chown(item.file.c_str(), 56, 78)); // as root
    chmod(item.file.c_str(), 0604);
    const std::string before = rights_of(item.file);
    ASSERT_TRUE(item.open() == 0 && item.load(1) == 0 && item.save() == 0);
    EXPECT_EQ(rights_of(item.file), before);
    fs::remove_all(item / ".item.metadir");
    chmod((item / "item").c_str(), 0640);
    umask(022);
    ASSERT_TRUE(item.open() == 0 && item.load(1) == 0 && item.save() == 0);
    EXPECT_EQ(rights_of(item.file), rights_of(item / "item"));
    EXPECT_EQ(rights_of(item / ".item.metadir"),
              std::to_string(0750) + " " + std::to_string(geteuid()));
}

TEST(Metadata, DirectoryIsMadeOnlyWhereItIsToAndBesideAFile) {
    const media_item item;
    const auto before = open_descriptors();
    const fs::path metadir = item / ".item.metadir";
    fs::remove_all(metadir);
    item.context->flags = 0;
    EXPECT_LT(item.open(), 0) << "not asked for";
    item.context->flags = METADATA_V4_CREATE_METADIR;
    fs::create_directory_symlink("/tmp", metadir);
    EXPECT_LT(item.open(), 0) << "a planted link";
    fs::remove(metadir);
    EXPECT_EQ(item.open(), 0);
    fs::remove(metadir);
    fs::remove(item / "item");
    EXPECT_LT(item.open(), 0) << "no media file";
    EXPECT_EQ(tree_of(item.root), file_tree());
    metadata_v4_context_close_file_handles(item.context);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(ProcessUtil, TheClockIsMonotonicInMicroseconds) {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto microseconds = static_cast<uint64_t>(now / std::chrono::microseconds(1));
    EXPECT_LT(monotonic_clock_us() - microseconds, 1000000U);
}

// On an overlay, kernels before 6.6 name the file below.
TEST(ProcTables, MappingsAreTheFilesByDeviceAndInodeOrOnAnOverlayByInodeOrName) {
    for (const auto &[text, is_file, is_on_overlay] :
         {std::tuple("7f-80 r--p 00 fe:1a 4711    /a\n", true, true),
          {"7f-80 r--p 00 fe:1b 4711    /a\n", false, true},
          {"7f-80 r--p 00 fe:1b 47110    /a/name\n", false, true},
          {"7f-80 r--p\n", false, false}})
        for (const bool overlay : {false, true}) {
            std::string line = text;
            const unique_file table(fmemopen(line.data(), line.size(), "r"));
            EXPECT_EQ(maps_file(table.get(), {makedev(0xfe, 0x1a), 4711}, overlay ? "name" : ""),
                      overlay ? is_on_overlay : is_file)
                << line;
        }
}
