// Everything that can be planted where a pass looks.
#include "support.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

using plant = void (*)(const fs::path &at, const fs::path &out);
const std::vector<plant> plants = {
    [](const fs::path &at, const fs::path &out) { fs::create_symlink(out, at); },
    [](const fs::path &at, const fs::path &out) { fs::create_symlink(out / "metadata", at); },
    [](const fs::path &at, const fs::path & /*out*/) { fs::create_symlink(at, at); },
    [](const fs::path &at, const fs::path & /*out*/) { mkfifo(at.c_str(), 0666); },
    [](const fs::path &at, const fs::path & /*out*/) { mknod(at.c_str(), S_IFSOCK | 0666, 0); },
    [](const fs::path &at, const fs::path & /*out*/) { mknod(at.c_str(), S_IFCHR, makedev(5, 0)); },
    [](const fs::path &at, const fs::path & /*out*/) { write_file(at / "inside", "planted"); },
    [](const fs::path &at, const fs::path & /*out*/) {
        write_file(at, {"\0=\n%s=%n", 8});
    },
};

TEST(HostileFolder, NothingPlantedIsFollowedOrWaitedFor) {
    for (const char *name :
         {"target/ARCHIVE", "watch/b.mxf", "watch/.a.mxf.metadir", "watch/.a.mxf.metadir/metadata",
          "watch/.a.mxf.metadir/.metadata.new", "watch/.a.mxf.metadir/.media.item.active.socket",
          "target/t", "target/.t.metadir", "target/.t.metadir/metadata"})
        // A link at ARCHIVE is followed: who can put it there may write beside the target.
        for (size_t i = strcmp(name, "target/ARCHIVE") == 0 ? 1 : 0; i < plants.size(); ++i) {
            SCOPED_TRACE(std::string(name) + ", plant " + std::to_string(i));
            const temporary_tree tree;
            write_file(tree / "out/metadata", "canary");
            write_file(tree / "main/target/u", "");
            write_file(tree / "main/watch/a.mxf", "media");
            fs::create_directories((tree / "main" / name).parent_path());
            plants[i](tree / "main" / name, tree / "out");
            const std::string main = tree / "main";
            const std::string passes = "timeout 20 " DRIVER " " + main + " " + main + "/watch " +
                                       main + "/target/t 3 2>/dev/null";
            EXPECT_EQ(system(passes.c_str()), 0);
            const std::string left = tree_of(tree / "main");
            EXPECT_EQ(tree_of(tree / "out"), "metadata=canary\n");
            EXPECT_EQ(left.find("canary"), std::string::npos) << left;
            EXPECT_NE(left.find("=media\n"), std::string::npos) << left;
        }
}

} // namespace
