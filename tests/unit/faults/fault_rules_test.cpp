// The fault injector itself: its rule language, and rules firing through
// the interposed calls of this process (files, stdio, sockets, SQLite).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <tuple>

#include "dorvfault.h"
#include "fault_core.h"
#include "test_util.h"

namespace core = dorvfault::core;

namespace {

struct accepted_case {
    const char* text;
    core::call what;
    core::fd_kind kind;
    const char* glob;
    uint32_t nth, count;
    int err;
    long short_len;
    const char* canonical;
};

TEST(FaultRules, AcceptedRulesReadAsWritten)
{
    const accepted_case cases[] = {
        {"write path=/var/roam_key_holders nth=2 errno=ENOSPC", core::call::write, core::fd_kind::any,
         "/var/roam_key_holders", 2, 1, ENOSPC, -1, "write path=/var/roam_key_holders nth=2 errno=ENOSPC"},
        {"  write\tpath=/tmp/ap2_macaddr.txt   short=5 ", core::call::write, core::fd_kind::any, "/tmp/ap2_macaddr.txt",
         1, 1, 0, 5, "write path=/tmp/ap2_macaddr.txt short=5"},
        {"spawn nth=1 errno=11", core::call::spawn, core::fd_kind::any, "", 1, 1, 11, -1, nullptr},
    };
    for (const accepted_case& c : cases) {
        SCOPED_TRACE(c.text);
        core::rule r;
        char why[400] = "";
        ASSERT_TRUE(core::parse_rule(c.text, r, why, sizeof why)) << why;
        EXPECT_TRUE(std::tie(r.what, r.kind, r.nth, r.count, r.err, r.short_len) ==
                    std::tie(c.what, c.kind, c.nth, c.count, c.err, c.short_len));
        EXPECT_STREQ(r.glob, c.glob);
        EXPECT_STREQ(r.text, c.canonical ? c.canonical : c.text);
    }
}

TEST(FaultRules, BadRulesAreRefusedByName)
{
    const struct {
        const char* text;
        const char* reason;
    } cases[] = {
        {"", "empty"},
        {"chmod errno=EIO", "unknown call"},
        {"write path=/x", "exactly one of errno"},
        {"open path=/x short=3", "\"short\" is for write and send only"},
        {"write errno=ENOTANERRNO", "\"errno\" must be"},
        {"write errno=0", "\"errno\" must be"},
        {"write nth=0 errno=EIO", "\"nth\" must be"},
        {"write count=2 every errno=EIO", "\"every\" given with \"count\""},
        {"write fd=tty errno=EIO", "\"fd\" must be"},
        {"pipe2 path=/x errno=EIO", "this call takes no path"},
        {"open fd=file errno=EIO", "this call works on no descriptor"},
        {"write colour=red errno=EIO", "unknown key"},
        {"write now errno=EIO", "neither KEY=VALUE"},
        {"write path=/a path=/b errno=EIO", "\"path\" given twice"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        core::rule r;
        char why[400] = "";
        EXPECT_FALSE(core::parse_rule(c.text, r, why, sizeof why));
        EXPECT_NE(std::string(why).find(std::string("bad fault rule \"") + c.text), std::string::npos) << why;
        EXPECT_NE(std::string(why).find(c.reason), std::string::npos) << why;
    }
    EXPECT_THROW(dorvfault::arm("write nth=x errno=EIO"), std::invalid_argument);
}

TEST(FaultRules, GlobsMatchLikeFnmatch)
{
    const struct {
        const char* pattern;
        const char* text;
        bool match;
    } cases[] = {
        {"/tmp/scan_db_*", "/tmp/scan_db_5g-journal", true},
        {"/tmp/scan_db_*", "/tmp/scan_db", false},
        {"/tmp/scan_db_?g", "/tmp/scan_db_5g", true},
        {"/tmp/scan_db_?g", "/tmp/scan_db_5gh", false},
        {"*", "", true},
        {"/tmp/log/dorvand_log.[01]", "/tmp/log/dorvand_log.1", true},
        {"/tmp/log/dorvand_log.[!01]", "/tmp/log/dorvand_log.1", false},
        {"/tmp/DB[0-9]G*", "/tmp/DB5GH_UPDATION_IN_PROGRESS", true},
        {"*a*b*c", "xxaxxbxxbxxc", true},
        {"a[b", "a[b", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.pattern) + " ~ " + c.text);
        EXPECT_EQ(core::glob_match(c.pattern, c.text), c.match);
    }
}

// Scratch files in the test's /tmp: a private root's when run without a
// namespace of its own, never the host's.
std::string tmp(const char* name)
{
    return testutil::at(std::string("/tmp/") + name);
}

int open_scratch(const std::string& path)
{
    return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
}

TEST(FaultRules, NthCountAndEveryPickTheFailingCalls)
{
    const struct {
        const char* rule;
        const char* outcomes;  // per write: '.' written, 'x' failed with ENOSPC
    } cases[] = {
        {"write path=*/tmp/fault_w nth=2 errno=ENOSPC", ".x...."},
        {"write path=*/tmp/fault_w nth=2 count=3 errno=ENOSPC", ".xxx.."},
        {"write path=*/tmp/fault_w nth=3 every errno=ENOSPC", "..xxxx"},
        {"write path=*/tmp/fault_other every errno=ENOSPC", "......"},
        {"write fd=pipe every errno=ENOSPC", "......"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rule);
        int fd = open_scratch(tmp("fault_w"));
        ASSERT_GE(fd, 0);
        dorvfault::handle h = dorvfault::arm(c.rule, true);
        std::string got;
        for (size_t i = 0; i < 6; ++i) {
            errno = 0;
            ssize_t n = write(fd, "ab", 2);
            got += n == 2 ? '.' : (n == -1 && errno == ENOSPC) ? 'x' : '?';
        }
        close(fd);
        EXPECT_EQ(got, c.outcomes);
        size_t failures = std::count(got.begin(), got.end(), 'x');
        EXPECT_EQ(dorvfault::fired(h), failures);
        EXPECT_EQ(dorvfault::fired_path(h), failures ? tmp("fault_w") : "");
        dorvfault::reset();
    }
}

TEST(FaultRules, ShortWriteWritesThatMuch)
{
    int fd = open_scratch(tmp("fault_short"));
    ASSERT_GE(fd, 0);
    dorvfault::arm("write path=*/tmp/fault_short short=3");
    EXPECT_EQ(write(fd, "abcdefgh", 8), 3);
    EXPECT_EQ(write(fd, "XY", 2), 2);
    close(fd);
    char buf[16] = {};
    FILE* f = fopen(tmp("fault_short").c_str(), "r");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(fread(buf, 1, sizeof buf, f), 5u);
    fclose(f);
    EXPECT_STREQ(buf, "abcXY");
}

}  // namespace
