// main() of every unit-test binary: moves the process into a private mount
// namespace with scratch /tmp, /var, /etc, /usr/local/bin and /usr/sbin, so
// that code using the daemon's fixed paths never touches the host's files.
// Without the privilege for that (an ordinary user) the fixed paths move
// under a private temporary root instead, removed at the end.
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "dorvfault.h"
#include "test_util.h"

namespace testutil {
extern bool sandbox_active;
}

namespace {

bool do_mount(const char* src, const char* target, const char* type, unsigned long flags, const char* opts)
{
    if (mount(src, target, type, flags, opts) == 0)
        return true;
    fprintf(stderr, "mount %s on %s failed: %s\n", type ? type : "(bind)", target, strerror(errno));
    return false;
}

// A writable copy-on-write view of a host directory; the upper layer lives in
// the private tmpfs on /mnt.
bool overlay(const char* target, const char* tag)
{
    char upper[128];
    char work[128];
    char opts[512];
    snprintf(upper, sizeof upper, "/mnt/ovl/%s/u", tag);
    snprintf(work, sizeof work, "/mnt/ovl/%s/w", tag);
    snprintf(opts, sizeof opts, "lowerdir=%s,upperdir=%s,workdir=%s", target, upper, work);
    mkdir("/mnt/ovl", 0700);
    char dir[128];
    snprintf(dir, sizeof dir, "/mnt/ovl/%s", tag);
    mkdir(dir, 0700);
    mkdir(upper, 0755);
    mkdir(work, 0755);
    return do_mount("overlay", target, "overlay", 0, opts);
}

bool enter_sandbox()
{
    // The overlay upper layers sit in a private tmpfs of their own, so that
    // reset_sandbox can empty /tmp without pulling them away.
    return do_mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) &&
           do_mount("tmpfs", "/mnt", "tmpfs", 0, "mode=0755") && do_mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") &&
           do_mount("tmpfs", "/var", "tmpfs", 0, "mode=0755") &&
           do_mount("tmpfs", "/usr/local/bin", "tmpfs", 0, "mode=0755") && overlay("/etc", "etc") &&
           overlay("/usr/sbin", "sbin");
}

// A fault a test armed that never fired means the test did not reach the
// path it meant to break: that fails the test. Each test starts unarmed.
class fault_check : public ::testing::EmptyTestEventListener {
    void OnTestEnd(const ::testing::TestInfo&) override
    {
        for (const std::string& rule : dorvfault::unfired())
            ADD_FAILURE() << "armed fault never fired: " << rule;
        dorvfault::reset();
    }
};

// A fresh directory of this process's own (mode 0700) with the folders of
// the fixed paths, made where no planted link can redirect it; the fixed
// paths and PATH's first entries (the scripts the tests install) point into
// it. Its name is short: the daemon's shell commands that name a fixed path
// have bounded buffers (the rogue-AP grep leaves 34 bytes for the
// configuration file's path). "" on failure.
std::string make_private_root()
{
    char dir[] = "/tmp/dorvu.XXXXXX";
    if (!mkdtemp(dir)) {
        fprintf(stderr, "cannot make a private root in /tmp: %s\n", strerror(errno));
        return "";
    }
    std::string root = dir;
    std::error_code ec;
    for (const char* sub : {"/tmp/log", "/tmp/run", "/var", "/etc", "/usr/local/bin", "/usr/sbin"})
        if (!ec)
            std::filesystem::create_directories(root + sub, ec);
    if (ec || !testutil::set_test_root(root)) {
        fprintf(stderr, "cannot lay out the private root %s\n", dir);
        std::filesystem::remove_all(root, ec);
        return "";
    }
    const char* path = getenv("PATH");
    std::string search = root + "/usr/local/bin:" + root + "/usr/sbin:" + (path ? path : "/usr/bin:/bin");
    setenv("PATH", search.c_str(), 1);
    return root;
}

}  // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    std::string root;
    if (unshare(CLONE_NEWNS) == 0) {
        if (!enter_sandbox())
            return 1;
    } else {
        root = make_private_root();
        if (root.empty())
            return 1;
    }
    testutil::sandbox_active = true;
    ::testing::UnitTest::GetInstance()->listeners().Append(new fault_check);
    int rc = RUN_ALL_TESTS();
    if (!root.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(root, ec);  // never follows a link out of it
    }
    return rc;
}
