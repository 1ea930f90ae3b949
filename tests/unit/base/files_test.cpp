// The daemon's own files: what open_checked refuses, and an append that is
// discarded. The key-holder files' tests cover the rest of the appends and
// replacements, through their faults.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "base/files.h"
#include "test_util.h"

using testutil::read_file;
using testutil::write_file;

namespace {

class files_test : public sandbox_test {
  protected:
    const std::string records_ = testutil::at("/tmp/records");
    const char* const path = records_.c_str();
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

}  // namespace
