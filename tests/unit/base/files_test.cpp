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

constexpr const char* path = "/tmp/records";
constexpr const char* tmp_path = "/tmp/records.tmp";

class files_test : public sandbox_test {};

TEST_F(files_test, OpenCheckedRefusesWhatTheDaemonMustNotWrite)
{
    struct refusal_case {
        const char* name;
        int (*plant)();  // 0 once the path is planted
        int flags;
        int err;
        const char* why;
    };
    const refusal_case cases[] = {
        {"truncating open", [] { return write_file(path, "x"), 0; }, O_WRONLY | O_TRUNC, EINVAL, nullptr},
        {"symbolic link", [] { return write_file("/tmp/other", "x"), symlink("/tmp/other", path); }, O_WRONLY, ELOOP,
         "a symbolic link"},
        {"hard link", [] { return write_file("/tmp/other", "x"), link("/tmp/other", path); }, O_WRONLY, EPERM,
         "a hard link"},
        {"another user's file", [] { return write_file(path, "x"), chown(path, 1, 1); }, O_WRONLY, EPERM,
         "owned by another user"},
        {"directory", [] { return mkdir(path, 0755); }, O_RDONLY, EPERM, "not a regular file"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        testutil::reset_sandbox();
        ASSERT_EQ(c.plant(), 0);
        const char* why = "unset";
        errno = 0;
        EXPECT_EQ(open_checked(path, c.flags, 0644, &why), -1);
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
