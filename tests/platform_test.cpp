#include "platform/include/metadata_v4.h"
#include "platform/include/procfs.h"
#include "tests/support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace {

const std::vector<std::pair<std::string, std::string>> escapes = {
    {"@0", {'\0'}}, {"@n", "\n"}, {"@r", "\r"}, {"@f", "\xff"}, {"@L", std::string(246, 'n')}};

std::string shown(const char *text) {
    return text == nullptr ? "-" : text;
}

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

// A media file, its metadata directory, and a context and a list for them.
struct media_item {
    media_item() {
        write_file(tree / "item", "media");
        fs::create_directory(metadir);
        metadata_v4_context_set_file_location(context, (tree / "item").c_str());
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
        for (uint64_t i = 0; i < list->entry_count; ++i)
            text += shown(entry(i)->name) + "|" + shown(entry(i)->value) + "\n";
        return text;
    }

    temporary_tree tree;
    fs::path metadir = tree / ".item.metadir";
    fs::path file = metadir / "metadata";
    metadata_v4_context *context = metadata_v4_context_create();
    metadata_v4_metadata_context *list = metadata_v4_metadata_context_create();
};

} // namespace

TEST(MetadataNames, MapBothWays) {
    const media_item item;
    for (const auto &row : read_cases(TEST_CASES "/metadata_names.txt", escapes)) {
        const std::string file = line_of(row, '+'), metadir = line_of(row, '=');
        SCOPED_TRACE(file + " has " + metadir);
        if (file != "-") {
            EXPECT_EQ(mapped(metadata_v4_file_to_metadir, file), metadir);
            metadata_v4_context_set_file_location(item.context, file.c_str());
            EXPECT_EQ(shown(item.context->dir_path), line_of(row, '>'));
        }
        if (metadir != "-") {
            EXPECT_EQ(mapped(metadata_v4_metadir_to_file, metadir), file);
            EXPECT_EQ(metadata_v4_context_is_metadata_name(metadir.c_str()), file == "-" ? 0 : 1);
        }
    }
}

TEST(MetadataFile, KeepsAnyBytesAndChangesOnlyWhatWasChanged) {
    for (auto row : read_cases(TEST_CASES "/metadata_files.txt", escapes)) {
        SCOPED_TRACE(row['#']);
        const media_item item;
        const std::string text = replaced(row['+'], "@.\n", "");
        write_file(item.file, text);
        const bool is_foreign = chown(item.file.c_str(), 12, 34) == 0; // as root
        chmod(item.file.c_str(), 0640);
        ASSERT_EQ(item.open(), 0);
        ASSERT_EQ(item.load(0), 0);
        EXPECT_EQ(item.entries(), row['=']);
        EXPECT_LT(item.save(), 0) << "a list that was only read is not bound";
        ASSERT_EQ(item.load(1), 0);
        ASSERT_EQ(item.save(), 0);
        EXPECT_EQ(read_file(item.file), text);
        auto *second = item.entry(1);
        if (second != nullptr) {
            EXPECT_EQ(metadata_v4_metadata_context_set_name_value_pair(item.list, second, "k=\\", 0,
                                                                       "\n=", 0, -1),
                      0);
        }
        EXPECT_EQ(
            metadata_v4_metadata_context_add_name_value_pair(item.list, "k=\\", 0, "\n=", 0, -1),
            0);
        write_file(item.metadir / ".metadata.new", "left by a crash");
        ASSERT_EQ(item.save(), 0);
        EXPECT_EQ(tree_of(item.metadir), "metadata=" + row['>'] + "\n");
        struct stat status {};
        stat(item.file.c_str(), &status);
        EXPECT_EQ(status.st_mode & 0777, 0640U);
        EXPECT_EQ(status.st_uid, is_foreign ? 12 : geteuid());
        EXPECT_EQ(status.st_gid, is_foreign ? 34 : getegid());
        const std::string changed = item.entries();
        ASSERT_EQ(item.load(0), 0);
        EXPECT_EQ(item.entries(), changed);
    }
}

TEST(MetadataContext, MakesAMetadataDirectoryOnlyBesideAFile) {
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
        EXPECT_LT(item.load(0), 0) << "no metadata file yet";
        EXPECT_EQ(item.load(1), 0);
        write_file(item.file, "a\n");
        EXPECT_EQ(item.load(1), 0);
        fs::remove(item.file);
        mkfifo(item.file.c_str(), 0600);
        EXPECT_LT(item.load(1), 0) << "a FIFO, to which nobody writes";
        EXPECT_EQ(item.list->entry_count, 0U);
        EXPECT_LT(item.save(), 0) << "nothing was loaded";
        fs::remove(item.file);
        write_file(item.file, "");
        fs::resize_file(item.file, (8U << 20) + 1);
        EXPECT_LT(item.load(1), 0) << "too large";
        fs::rename(item.tree / "item", item.tree / "gone");
        fs::remove_all(item.metadir);
        EXPECT_LT(item.open(), 0) << "no media file";
        EXPECT_EQ(tree_of(item.tree.root), "gone=media\n");
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
    EXPECT_EQ(open_descriptors(), before);
    fs::remove_all(elsewhere);
}

TEST(SocketServer, IsFoundByTheBoundFile) {
    const struct {
        int type;
        bool listens, connects, expected;
    } rows[] = {{SOCK_STREAM, true, false, true},
                {SOCK_SEQPACKET, true, false, true},
                {SOCK_DGRAM, false, false, true},
                {SOCK_STREAM, false, false, false},
                {SOCK_STREAM, true, true, false}}; // only what the listener accepted is left
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.type << row.listens << row.connects);
        const temporary_tree tree;
        const std::string path = tree / "renamed";
        {
            const child_process server([&] {
                const int fd = socket(AF_UNIX, row.type | SOCK_CLOEXEC, 0);
                const int client = socket(AF_UNIX, row.type | SOCK_CLOEXEC, 0);
                const sockaddr_un named{AF_UNIX, "relative"};
                const auto *address = reinterpret_cast<const sockaddr *>(&named);
                fs::current_path(tree.root);
                if (bind(fd, address, sizeof(named)) == 0 && (!row.listens || listen(fd, 1) == 0) &&
                    (!row.connects || (connect(client, address, sizeof(named)) == 0 &&
                                       accept4(fd, nullptr, nullptr, SOCK_CLOEXEC) >= 0)))
                    fs::rename("relative", path);
                if (row.connects)
                    close(fd);
            });
            EXPECT_EQ(get_socket_server_pid(path.c_str(), 0), row.expected ? server.pid : -1);
        }
        EXPECT_TRUE(fs::is_socket(path));
        EXPECT_EQ(get_socket_server_pid(path.c_str(), 1), -1) << "the server is gone";
    }
}
