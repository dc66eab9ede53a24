#include "platform/metadata_v4.h"
#include "platform/proc_tables.h"
#include "platform/procfs.h"
#include "tests/support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

namespace {

using context_ptr = std::unique_ptr<metadata_v4_context, decltype(&metadata_v4_context_destroy)>;
using list_ptr =
    std::unique_ptr<metadata_v4_metadata_context, decltype(&metadata_v4_metadata_context_destroy)>;

context_ptr new_context() {
    return {metadata_v4_context_create(), metadata_v4_context_destroy};
}
list_ptr new_list() {
    return {metadata_v4_metadata_context_create(), metadata_v4_metadata_context_destroy};
}

int load(const list_ptr &list, const context_ptr &context, int for_writing) {
    return metadata_v4_metadata_context_load_metadata_from_file(list.get(), context.get(),
                                                                for_writing, nullptr);
}

int save(const list_ptr &list, const context_ptr &context) {
    return metadata_v4_metadata_context_write_metadata_to_file(list.get(), context.get(), 0,
                                                               nullptr);
}

int add(const list_ptr &list, const char *name, const char *value) {
    return metadata_v4_metadata_context_add_name_value_pair(list.get(), name, 0, value, 0, -1);
}

std::string shown(const char *text) {
    return text == nullptr ? "-" : text;
}

// The entries as "name|value;", a missing text as "-".
std::string entries_of(const list_ptr &list) {
    std::string text;
    for (uint64_t i = 0; i < list->entry_count; ++i) {
        const auto *entry = metadata_v4_metadata_context_read_entry(list.get(), i);
        text += shown(entry->name) + "|" + shown(entry->value) + ";";
    }
    return text;
}

// An item with an open context: file "item" and, where asked for, its metadata directory.
struct item_fixture {
    explicit item_fixture(bool with_metadir = true) {
        write_file(tree / "item", "media");
        if (with_metadir)
            fs::create_directory(metadir);
        metadata_v4_context_set_file_location(context.get(), (tree / "item").c_str());
    }
    temporary_tree tree;
    fs::path metadir = tree / ".item.metadir";
    fs::path file = metadir / "metadata";
    context_ptr context = new_context();
};

} // namespace

TEST(MetadataNames, MapBothWays) {
    const std::string longest(246, 'n'); // 255 bytes with "." and ".metadir"
    const std::pair<std::string, std::string> rows[] = {
        {"news.mxf", ".news.mxf.metadir"},
        {"/mnt/x/news.mxf", "/mnt/x/.news.mxf.metadir"},
        {"a b\n%s\xff", ".a b\n%s\xff.metadir"},
        {".a.metadir", "..a.metadir.metadir"},
        {"...", ".....metadir"},
        {longest, "." + longest + ".metadir"},
    };
    char buffer[512];
    for (const auto &[file, metadir] : rows) {
        const size_t size = metadir.size() + 1;
        EXPECT_EQ(metadata_v4_file_to_metadir(buffer, size, file.c_str()), 0) << file;
        EXPECT_EQ(buffer, metadir);
        EXPECT_LT(metadata_v4_file_to_metadir(buffer, size - 1, file.c_str()), 0) << file;
        EXPECT_EQ(metadata_v4_context_is_metadata_name(metadir.c_str()), 1) << file;
        EXPECT_EQ(metadata_v4_metadir_to_file(buffer, file.size() + 1, metadir.c_str()), 0);
        EXPECT_EQ(buffer, file);
    }
    for (const std::string &name :
         {longest + "n", std::string(), std::string("x/"), std::string("x/."), std::string("..")})
        EXPECT_LT(metadata_v4_file_to_metadir(buffer, sizeof(buffer), name.c_str()), 0) << name;
    for (const char *name :
         {"news.mxf", ".metadir", "..metadir", "...metadir", ".x.metadi", "x/"}) {
        EXPECT_LT(metadata_v4_metadir_to_file(buffer, sizeof(buffer), name), 0) << name;
        EXPECT_EQ(metadata_v4_context_is_metadata_name(name), 0) << name;
    }
}

TEST(MetadataFile, ReadsAnyBytesAndWritesThemBack) {
    const struct {
        const char *why;
        std::string text;
        std::string entries;
        std::string with_added; // after adding the entry k\=\\ = v\n
    } rows[] = {
        {"nothing", "", "", ""},
        {"order and duplicates", "b=1\na=2\nb=3\n", "b|1;a|2;b|3;", "b=1\na=2\nb=3\n"},
        {"escapes", "a\\=b\\\\=c\\n\\\\d=\\=\n", "a=b\\|c\n\\d=\\=;", "a\\=b\\\\=c\\n\\\\d=\\=\n"},
        {"unknown escapes stand for themselves", "a\\x=\\t\\", "a\\x|\\t\\;", "a\\x=\\t\\\n"},
        {"half an entry", "name\n=value\n=\n", "name|-;-|value;-|;", "name\n=value\n=\n"},
        {"empty lines and a lost newline", "\n\na=1\n\nb=2", "a|1;b|2;", "\n\na=1\n\nb=2\n"},
        {"NUL bytes", std::string("a=\0\nb=1\n", 8), "-|-;b|1;", std::string("a=\0\nb=1\n", 8)},
        {"carriage returns and high bytes", "\xff=\r\n", "\xff|\r;", "\xff=\r\n"},
    };
    for (const auto &row : rows) {
        item_fixture item;
        write_file(item.file, row.text);
        ASSERT_EQ(metadata_v4_context_open_file_handles(item.context.get()), 0);
        const auto list = new_list();
        ASSERT_EQ(load(list, item.context, 0), 0) << row.why;
        EXPECT_EQ(entries_of(list), row.entries) << row.why;
        EXPECT_LT(save(list, item.context), 0) << "a list that was only read is not bound";
        ASSERT_EQ(load(list, item.context, 1), 0);
        ASSERT_EQ(save(list, item.context), 0);
        EXPECT_EQ(read_file(item.file), row.text) << row.why;
        ASSERT_EQ(add(list, "k=\\", "v\n="), 0);
        ASSERT_EQ(save(list, item.context), 0);
        EXPECT_EQ(read_file(item.file), row.with_added + "k\\=\\\\=v\\n=\n") << row.why;
        ASSERT_EQ(load(list, item.context, 0), 0);
        EXPECT_EQ(entries_of(list), row.entries + "k=\\|v\n=;") << row.why;
    }
}

TEST(MetadataFile, AChangeLeavesTheOtherLinesAlone) {
    item_fixture item;
    write_file(item.file, "a\\q=1\n\nkey=old\n\n=x\nlast");
    chmod(item.file.c_str(), 0640);
    ASSERT_EQ(metadata_v4_context_open_file_handles(item.context.get()), 0);
    const auto list = new_list();
    ASSERT_EQ(load(list, item.context, 1), 0);
    auto *entry = metadata_v4_metadata_context_read_entry(list.get(), 1);
    ASSERT_EQ(metadata_v4_metadata_context_set_name_value_pair(list.get(), entry, "key", 0,
                                                               "new and longer", 0, -1),
              0);
    write_file(item.metadir / ".metadata.new", "left by a crash");
    ASSERT_EQ(save(list, item.context), 0);
    EXPECT_EQ(tree_of(item.metadir), "metadata=a\\q=1\n\nkey=new and longer\n\n=x\nlast\n");
    EXPECT_EQ(fs::status(item.file).permissions(), fs::perms(0640));
}

TEST(MetadataFile, PlantedThingsAreNeitherFollowedNorWaitedForNorOverwritten) {
    const struct {
        const char *why;
        void (*plant)(const fs::path &file, const fs::path &outside);
    } rows[] = {
        {"link", [](const fs::path &file, const fs::path &out) { fs::create_symlink(out, file); }},
        {"FIFO", [](const fs::path &file, const fs::path &) { mkfifo(file.c_str(), 0600); }},
        {"directory", [](const fs::path &file, const fs::path &) { fs::create_directory(file); }},
        {"too large",
         [](const fs::path &file, const fs::path &) {
             write_file(file, "");
             fs::resize_file(file, (8U << 20) + 1);
         }},
    };
    for (const auto &row : rows) {
        item_fixture item;
        write_file(item.tree / "outside", "a=b\n");
        row.plant(item.file, item.tree / "outside");
        ASSERT_EQ(metadata_v4_context_open_file_handles(item.context.get()), 0);
        const auto list = new_list();
        for (const int for_writing : {0, 1}) {
            EXPECT_LT(load(list, item.context, for_writing), 0) << row.why;
            EXPECT_EQ(list->entry_count, 0U) << row.why;
            EXPECT_LT(list->descriptor, 0) << row.why;
        }
        EXPECT_LT(save(list, item.context), 0) << row.why;
        // The temporary file's name may be taken by anything as well.
        fs::remove_all(item.file);
        row.plant(item.metadir / ".metadata.new", item.tree / "outside");
        ASSERT_EQ(load(list, item.context, 1), 0);
        ASSERT_EQ(add(list, "k", "v"), 0);
        EXPECT_EQ(save(list, item.context), 0) << row.why;
        EXPECT_EQ(read_file(item.file), "k=v\n") << row.why;
        EXPECT_EQ(read_file(item.tree / "outside"), "a=b\n") << row.why;
    }
}

TEST(MetadataContext, MakesAMetadataDirectoryOnlyBesideAFile) {
    const size_t before = open_descriptors();
    {
        item_fixture item(false);
        auto *context = item.context.get();
        EXPECT_LT(metadata_v4_context_open_file_handles(context), 0) << "not asked for";
        context->flags |= METADATA_V4_CREATE_METADIR;
        fs::create_directory_symlink("/tmp", item.metadir);
        EXPECT_LT(metadata_v4_context_open_file_handles(context), 0) << "a planted link";
        fs::remove(item.metadir);
        EXPECT_EQ(metadata_v4_context_open_file_handles(context), 0);
        const auto list = new_list();
        EXPECT_LT(load(list, item.context, 0), 0) << "no metadata file yet";
        EXPECT_EQ(load(list, item.context, 1), 0);
        fs::rename(item.tree / "item", item.tree / "gone");
        fs::remove(item.metadir);
        EXPECT_LT(metadata_v4_context_open_file_handles(context), 0) << "no media file";
        EXPECT_EQ(tree_of(item.tree.root), "gone=media\n");
        EXPECT_EQ(metadata_v4_context_set_file_location(context, "a"), 0);
        EXPECT_EQ(context->dir_path + std::string(context->file_name), ".a");
        EXPECT_EQ(metadata_v4_context_set_file_location(context, "/a"), 0);
        EXPECT_EQ(context->dir_path + std::string(context->file_name), "/a");
        for (const char *path : {"", "a/", "a/.."}) {
            EXPECT_LT(metadata_v4_context_set_file_location(context, path), 0) << path;
            EXPECT_EQ(context->dir_path, nullptr) << path;
        }
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST(PathInUse, TheServicesOwnDescriptorsDoNotCount) {
    const temporary_tree tree;
    const std::string file = tree / "file", soft = tree / "soft";
    write_file(file, "x");
    fs::create_symlink(file, soft);
    EXPECT_EQ(procfs_path_in_use((tree / "missing").c_str(), nullptr, 0, 0), 0);
    const unique_fd own(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(procfs_path_in_use(soft.c_str(), nullptr, 0, 0), 0);
    const child_process holder([] {}); // inherits the descriptor
    procfs_path_in_use_info info{};
    EXPECT_EQ(procfs_path_in_use(soft.c_str(), &info, 1, 0), 1);
    EXPECT_EQ(info.pid, holder.pid);
}

TEST(ProcTables, AreReadAsTheKernelWritesThem) {
    const file_identity file{makedev(0xfe, 0x1a), 4711};
    EXPECT_TRUE(maps_file("x\n7f-80 r--p 00 fe:1a 4711    /a b\\012c\n", file));
    for (const char *line : {"7f-80 r--p 00 fe:1a 47110", "7f-80 r--p 00 fe:1b 4711", "7f-80 r--p"})
        EXPECT_FALSE(maps_file(line, file)) << line;
    const auto info = parse_descriptor_info("pos:\t0\nflags:\t012100000\nmnt_id:\t24\nino:\tx\n");
    EXPECT_EQ(info.flags, O_PATH | O_CLOEXEC | 0100000);
    EXPECT_EQ(info.mount_id, 24U);
    EXPECT_EQ(device_of_mount("240 1 0:5 /\n24 1 254:26 / /a\n", 24), makedev(254, 26));
}

TEST(SocketServer, IsFoundByTheBoundFile) {
    const struct {
        int type;
        bool listens, connects;
        bool expected;
    } rows[] = {{SOCK_STREAM, true, false, true},
                {SOCK_SEQPACKET, true, false, true},
                {SOCK_DGRAM, false, false, true},
                {SOCK_STREAM, false, false, false},
                {SOCK_STREAM, true, true, false}}; // only what the listener accepted is left
    for (const auto &row : rows) {
        const temporary_tree tree;
        const std::string path = tree / "renamed";
        {
            const child_process server([&] {
                unique_fd fd(socket(AF_UNIX, row.type | SOCK_CLOEXEC, 0));
                const int client = socket(AF_UNIX, row.type | SOCK_CLOEXEC, 0);
                const sockaddr_un named{AF_UNIX, "relative"};
                const auto *address = reinterpret_cast<const sockaddr *>(&named);
                if (chdir(tree.root.c_str()) != 0 || bind(fd.get(), address, sizeof(named)) != 0 ||
                    (row.listens && listen(fd.get(), 1) != 0))
                    abort();
                if (row.connects && (connect(client, address, sizeof(named)) != 0 ||
                                     accept4(fd.get(), nullptr, nullptr, SOCK_CLOEXEC) < 0))
                    abort();
                fs::rename("relative", "renamed");
                if (row.connects)
                    fd.reset();
                fd.release();
            });
            EXPECT_EQ(get_socket_server_pid(path.c_str(), 1), row.expected ? server.pid : -1)
                << row.type << row.listens << row.connects;
        }
        EXPECT_TRUE(fs::is_socket(path));
        EXPECT_EQ(get_socket_server_pid(path.c_str(), 1), -1) << "the server is gone";
    }
}
