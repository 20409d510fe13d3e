#include "files/File.h"

#include <gtest/gtest.h>

#include "files/TemporaryFolder.h"

namespace zevrant {
namespace {

TEST(File, takesPathsApartAsPlainText) {
    const struct {
        const char *path, *fileName, *nameWithoutExtension, *extension, *parent;
    } cases[] = {
        {"", "", "", "", ""},
        {"b.txt", "b.txt", "b", "txt", ""},
        {"..", "..", ".", "", ""},
        {".hidden", ".hidden", "", "hidden", ""},
        {"/a//", "", "", "", "/a/"},
        {"/a/b.c.d", "b.c.d", "b.c", "d", "/a"},
        {"/a.b/c", "c", "c", "b/c", "/a.b"},  // the dot of a folder counts when the name has none
        {"a\\b.c", "a\\b.c", "a\\b", "c", ""},
    };
    for (const auto& [path, fileName, nameWithoutExtension, extension, parent] : cases) {
        SCOPED_TRACE(path);
        const File file{std::string(path)};
        EXPECT_EQ(file.getFullPath(), path);
        EXPECT_EQ(file.getFileName(), fileName);
        EXPECT_EQ(file.getFileNameWithoutExtension(), nameWithoutExtension);
        EXPECT_EQ(file.getFileExtension(), extension);
        EXPECT_EQ(file.getParentDirectory().getFullPath(), parent);
        EXPECT_EQ(file.getChild("c").getFullPath(), std::string(path) + "/c") << "one delimiter more";
    }
}

TEST(File, asksTheFileSystemEachTime) {
    const TemporaryFolder folder;
    const File file(folder.getPath("a")), orphan(folder.getPath("missing/orphan"));
    EXPECT_FALSE(file.exists() || file.deleteFile());
    EXPECT_TRUE(file.createDirectory() && file.exists());
    EXPECT_TRUE(file.createDirectory()) << "exists already";
    EXPECT_TRUE(orphan.createDirectory()) << "true whatever happens";
    EXPECT_FALSE(orphan.exists());
    EXPECT_TRUE(file.deleteFile());
    EXPECT_FALSE(file.exists());
    EXPECT_TRUE(File("/").findChildFiles("*", true, true).empty()) << "finds none, on purpose";
}

TEST(File, copiesAreNumberedFromTwo) {
    const struct {
        const char* name;
        std::vector<const char*> taken;
        const char* expected;
    } cases[] = {{"Mix.wav", {}, "Mix 2.wav"},
                 {"Mix.wav", {"Mix 2.wav"}, "Mix 3.wav"},
                 {"Take 2.wav", {}, "Take  2.wav"},
                 {"Mix.wav", {"Mix 3.wav"}, "Mix 2.wav"},
                 {"Take9.wav", {}, "Take 2.wav"},
                 {"123.wav", {}, " 2.wav"},
                 {"Mix", {}, "Mix 2."},
                 {"a.b.c", {}, "a.b 2.c"}};
    for (const auto& [name, taken, expected] : cases) {
        const TemporaryFolder folder;
        const File file(folder.getPath(name));
        EXPECT_EQ(file.getUniqueCopiedName().getFullPath(), file.getFullPath()) << "does not exist";
        folder.makeFile(name);
        for (const char* other : taken) folder.makeFile(other);
        EXPECT_EQ(file.getUniqueCopiedName().getFullPath(), folder.getPath(expected));
    }
}

TEST(File, systemFoldersLieBelowHome) {
    const std::string before = std::getenv("HOME") ? std::getenv("HOME") : "/";
    const TemporaryFolder home;
    setenv("HOME", home.path.c_str(), 1);
    const auto get = [](File::SystemFolderID id) { return File::getSystemFolder(id).getFullPath(); };
    EXPECT_EQ(get(File::SystemLibrary), "/Library");
    EXPECT_EQ(get(File::UserLibrary), home.path + "/Library");
    EXPECT_EQ(get(File::UserDocuments), home.path + "/Documents");
    EXPECT_EQ(get(File::UserMusic), home.path + "/Music");
    const std::string cache = home.path + "/Library/Caches/Zevrant/";
    EXPECT_EQ(get(File::UserCache), cache);
    EXPECT_FALSE(File(cache).exists()) << "only the last folder is made";
    std::filesystem::create_directories(home.path + "/Library/Caches");
    for (int call = 0; call < 2; ++call) {
        EXPECT_EQ(get(File::UserCache), cache);
        EXPECT_TRUE(File(cache).exists());
    }
    unsetenv("HOME");
    for (const auto folder : {File::UserCache, File::UserLibrary, File::UserDocuments, File::UserMusic})
        EXPECT_THROW(get(folder), std::runtime_error);
    EXPECT_EQ(get(static_cast<File::SystemFolderID>(6)), "");
    EXPECT_EQ(get(File::CurrentExecutable), std::filesystem::read_symlink("/proc/self/exe"));
    setenv("HOME", before.c_str(), 1);
}

TEST(File, temporaryFilesAreNamesOnly) {
    const TemporaryFolder folder;
    for (int call = 0; call < 100; ++call) {
        const std::string path = File::createTemporaryFile(File(folder.path), "take").getFullPath();
        ASSERT_TRUE(path.starts_with(folder.path + "/take") && path.ends_with(".tmp")) << path;
        EXPECT_FALSE(File(path).exists());
        std::ofstream{path};  // the next name has to avoid this one
    }
}

}  // namespace
}  // namespace zevrant
