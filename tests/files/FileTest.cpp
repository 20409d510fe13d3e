#include "files/File.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

#include "files/TemporaryFolder.h"

namespace zevrant {
namespace {

// Sets an environment variable, or takes it away, for the length of a test.
class ScopedVariable {
  public:
    ScopedVariable(const char* variable, const char* value) : name(variable) {
        if (const char* held = std::getenv(variable)) before = held;
        set(value);
    }
    ~ScopedVariable() { set(before ? before->c_str() : nullptr); }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

  private:
    void set(const char* value) const {
        if (value != nullptr)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }

    const char* name;
    std::optional<std::string> before;
};

struct PathParts {
    const char* path;
    const char* fileName;
    const char* nameWithoutExtension;
    const char* extension;
    const char* parent;
};

constexpr PathParts pathParts[] = {
    {"", "", "", "", ""},
    {"/", "", "", "", ""},
    {"b", "b", "b", "", ""},
    {"b.txt", "b.txt", "b", "txt", ""},
    {".", ".", "", "", ""},
    {"..", "..", ".", "", ""},
    {".hidden", ".hidden", "", "hidden", ""},
    {"name.", "name.", "name", "", ""},
    {"/a", "a", "a", "", ""},
    {"/a/", "", "", "", "/a"},
    {"/a//", "", "", "", "/a/"},
    {"/a/b", "b", "b", "", "/a"},
    {"/a/b.txt", "b.txt", "b", "txt", "/a"},
    {"/a/b.c.d", "b.c.d", "b.c", "d", "/a"},
    {"/a.b/c", "c", "c", "b/c", "/a.b"},  // the dot of a folder counts when the name has none
    {"/a.b/", "", "", "b/", "/a.b"},
    {"a\\b.c", "a\\b.c", "a\\b", "c", ""},
    {"../x/./y.z", "y.z", "y", "z", "../x/."},
};

TEST(File, takesPathsApartAsPlainText) {
    for (const PathParts& parts : pathParts) {
        SCOPED_TRACE(parts.path);
        const File file{std::string(parts.path)};
        EXPECT_EQ(file.getFullPath(), parts.path);
        EXPECT_EQ(file.getFileName(), parts.fileName);
        EXPECT_EQ(file.getFileNameWithoutExtension(), parts.nameWithoutExtension);
        EXPECT_EQ(file.getFileExtension(), parts.extension);
        EXPECT_EQ(file.getParentDirectoryPath(), parts.parent);
        EXPECT_EQ(file.getParentDirectory().getFullPath(), parts.parent);
    }
}

TEST(File, childrenAreAppendedWithOneDelimiterMore) {
    EXPECT_EQ(File("/a").getChild("c").getFullPath(), "/a/c");
    EXPECT_EQ(File("/a/").getChild("c").getFullPath(), "/a//c");
    EXPECT_EQ(File().getChild("").getFullPath(), "/");
    EXPECT_TRUE(File("/").findChildFiles("*", true, true).empty()) << "finds none, on purpose";
}

TEST(File, asksTheFileSystemEachTime) {
    const TemporaryFolder folder;
    const File file(folder.getPath("a"));
    EXPECT_FALSE(file.exists());
    EXPECT_FALSE(file.deleteFile());
    folder.makeFile("a");
    EXPECT_TRUE(file.exists());
    EXPECT_TRUE(file.deleteFile());
    EXPECT_FALSE(file.exists());
    EXPECT_TRUE(File(folder.path).exists());
    EXPECT_FALSE(File().exists());
}

TEST(File, createDirectoryIsTrueWhateverHappens) {
    const TemporaryFolder folder;
    const File made(folder.getPath("made")), orphan(folder.getPath("missing/orphan"));
    EXPECT_TRUE(made.createDirectory());
    EXPECT_TRUE(std::filesystem::is_directory(made.getFullPath()));
    EXPECT_TRUE(made.createDirectory()) << "exists already";
    EXPECT_TRUE(orphan.createDirectory());
    EXPECT_FALSE(orphan.exists());
}

TEST(File, copiesAreNumberedFromTwo) {
    const TemporaryFolder folder;
    const struct {
        const char* name;
        std::vector<const char*> taken;
        const char* expected;
    } cases[] = {
        {"Mix.wav", {}, "Mix 2.wav"},
        {"Mix.wav", {"Mix 2.wav"}, "Mix 3.wav"},
        {"Mix.wav", {"Mix 3.wav"}, "Mix 2.wav"},
        {"Take 2.wav", {}, "Take  2.wav"},
        {"Take9.wav", {}, "Take 2.wav"},
        {"123.wav", {}, " 2.wav"},
        {"Mix", {}, "Mix 2."},
        {"a.b.c", {}, "a.b 2.c"},
        {"many.x",
         {"many 2.x", "many 3.x", "many 4.x", "many 5.x", "many 6.x", "many 7.x", "many 8.x", "many 9.x",
          "many 10.x"},
         "many 11.x"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.expected);
        const File file(folder.getPath(test.name));
        EXPECT_EQ(file.getUniqueCopiedName().getFullPath(), file.getFullPath()) << "does not exist";
        folder.makeFile(test.name);
        for (const char* taken : test.taken) folder.makeFile(taken);
        EXPECT_EQ(file.getUniqueCopiedName().getFullPath(), folder.getPath(test.expected));
        EXPECT_FALSE(File(folder.getPath(test.expected)).exists()) << "only names, never makes";
        file.deleteFile();
        for (const char* taken : test.taken) File(folder.getPath(taken)).deleteFile();
    }
}

TEST(File, systemFoldersLieBelowHome) {
    const TemporaryFolder home;
    const ScopedVariable variable("HOME", home.path.c_str());
    EXPECT_EQ(File::getSystemFolder(File::SystemLibrary).getFullPath(), "/Library");
    EXPECT_EQ(File::getSystemFolder(File::UserLibrary).getFullPath(), home.path + "/Library");
    EXPECT_EQ(File::getSystemFolder(File::UserDocuments).getFullPath(), home.path + "/Documents");
    EXPECT_EQ(File::getSystemFolder(File::UserMusic).getFullPath(), home.path + "/Music");
    EXPECT_TRUE(std::filesystem::is_empty(home.path));

    const std::string cache = home.path + "/Library/Caches/Zevrant/";
    EXPECT_EQ(File::getSystemFolder(File::UserCache).getFullPath(), cache);
    EXPECT_FALSE(File(cache).exists()) << "only the last folder is made";
    std::filesystem::create_directories(home.path + "/Library/Caches");
    for (int call = 0; call < 2; ++call) {
        EXPECT_EQ(File::getSystemFolder(File::UserCache).getFullPath(), cache);
        EXPECT_TRUE(std::filesystem::is_directory(cache));
    }
}

TEST(File, foldersOfTheUserNeedHome) {
    const ScopedVariable variable("HOME", nullptr);
    for (const auto folder : {File::UserCache, File::UserLibrary, File::UserDocuments, File::UserMusic})
        EXPECT_THROW(File::getSystemFolder(folder), std::runtime_error);
    EXPECT_EQ(File::getSystemFolder(File::SystemLibrary).getFullPath(), "/Library");
    EXPECT_EQ(File::getSystemFolder(static_cast<File::SystemFolderID>(6)).getFullPath(), "");
}

TEST(File, currentExecutableIsThisProgram) {
    const std::string path = File::getSystemFolder(File::CurrentExecutable).getFullPath();
    EXPECT_EQ(path, std::filesystem::read_symlink("/proc/self/exe"));
    EXPECT_TRUE(File(path).exists());
}

TEST(File, temporaryFilesAreNamesOnly) {
    const TemporaryFolder folder;
    for (int call = 0; call < 100; ++call) {
        const std::string path = File::createTemporaryFile(File(folder.path), "take").getFullPath();
        ASSERT_TRUE(path.starts_with(folder.path + "/take")) << path;
        ASSERT_TRUE(path.ends_with(".tmp")) << path;
        const std::string number = path.substr(folder.path.size() + 5, path.size() - folder.path.size() - 9);
        EXPECT_EQ(number.find_first_not_of("0123456789"), std::string::npos) << path;
        EXPECT_FALSE(File(path).exists());
        std::ofstream{path};  // the next name has to avoid this one
    }
}

}  // namespace
}  // namespace zevrant
