// The daemon's own files: what open_checked refuses, and appends and
// replacements that leave no half-written file behind.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "base/files.h"
#include "test_util.h"

using testutil::exists;
using testutil::read_file;
using testutil::write_file;

namespace {

class files_test : public sandbox_test {
protected:
    const std::string records_ = testutil::at("/tmp/records");
    const std::string records_tmp_ = testutil::at("/tmp/records.tmp");
    const char* const path = records_.c_str();
    const char* const tmp_path = records_tmp_.c_str();
};

// A link of `make`'s kind at `path` to a file of the test's own.
const char* plant_link(const char* path, int (*make)(const char*, const char*))
{
    const std::string other = testutil::at("/tmp/other");
    write_file(other, "x");
    return make(other.c_str(), path) == 0 ? path : nullptr;
}

// Another user's file where the test may open it: root plants one and gives
// it away; an ordinary user cannot give a file away, and takes one of root's.
const char* plant_foreign(const char* path)
{
    if (geteuid() != 0)
        return "/etc/passwd";
    write_file(path, "x");
    return chown(path, 1, 1) == 0 ? path : nullptr;
}

TEST_F(files_test, OpenCheckedRefusesWhatTheDaemonMustNotWrite)
{
    struct refusal_case {
        const char* name;
        const char* (*plant)(const char* path);  // what to open once planted; null on failure
        int flags;
        int err;
        const char* why;
    };
    const refusal_case cases[] = {
        {"truncating open", [](const char* p) { return write_file(p, "x"), p; }, O_WRONLY | O_TRUNC, EINVAL, nullptr},
        {"symbolic link", [](const char* p) { return plant_link(p, symlink); }, O_WRONLY, ELOOP, "a symbolic link"},
        {"hard link", [](const char* p) { return plant_link(p, link); }, O_WRONLY, EPERM, "a hard link"},
        // Read, not written: an ordinary user can only read a file of root's.
        {"another user's file", plant_foreign, O_RDONLY, EPERM, "owned by another user"},
        {"directory", [](const char* p) { return mkdir(p, 0755) == 0 ? p : nullptr; }, O_RDONLY, EPERM,
         "not a regular file"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        testutil::reset_sandbox();
        const char* target = c.plant(path);
        ASSERT_NE(target, nullptr);
        const char* why = "unset";
        errno = 0;
        EXPECT_EQ(open_checked(target, c.flags, 0644, &why), -1);
        EXPECT_EQ(errno, c.err);
        EXPECT_STREQ(why, c.why);
    }
}

TEST_F(files_test, AppendStartsAfterTheLastWholeRecord)
{
    write_file(path, "0123456789abcdefTORN");
    append_file f;
    ASSERT_TRUE(f.open(path));
    f.trim_to_records(16);
    fputs("ghijklmnopqrstuv", f.get());
    ASSERT_TRUE(f.close());
    EXPECT_EQ(read_file(path), "0123456789abcdefghijklmnopqrstuv");
}

TEST_F(files_test, DiscardedAppendLeavesTheFileAsOpened)
{
    write_file(path, "abc");
    append_file f;
    ASSERT_TRUE(f.open(path));
    fputs("def", f.get());
    fflush(f.get());  // already in the file: discard must cut it off again
    f.discard();
    EXPECT_EQ(read_file(path), "abc");
}

TEST_F(files_test, UncommittedReplacementRemovesItsTemporaryFile)
{
    write_file(path, "old");
    {
        replace_file f(tmp_path, path);
        ASSERT_TRUE(f.open());
        fputs("new", f.get());
    }
    EXPECT_EQ(read_file(path), "old");
    EXPECT_FALSE(exists(tmp_path));
}

// A directory planted at the target: the rename fails, the temporary file
// goes and what is there stays.
TEST_F(files_test, FailedRenameRemovesTheTemporaryFile)
{
    ASSERT_EQ(mkdir(path, 0755), 0);
    replace_file f(tmp_path, path);
    ASSERT_TRUE(f.open());
    fputs("new", f.get());
    errno = 0;
    EXPECT_FALSE(f.commit());
    EXPECT_EQ(errno, EISDIR);
    EXPECT_FALSE(exists(tmp_path));
    struct stat st {};
    EXPECT_TRUE(stat(path, &st) == 0 && S_ISDIR(st.st_mode));
}

}  // namespace
