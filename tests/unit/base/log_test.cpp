// The log: rotation, the escaping of text from the air, and the file when it
// cannot be written or is not the daemon's, the level limit, a message that
// cannot be formatted, and the configuration limits as rotation shows them.
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "base/log.h"
#include "dorvfault.h"
#include "test_util.h"

using testutil::exists;
using testutil::read_file;
using testutil::write_file;

namespace {

std::string path()
{
    return testutil::at("/tmp/log/dorvand_log");
}

class log_fault_test : public sandbox_test {
  protected:
    void configure(uint32_t limit, uint32_t size, uint32_t backups)
    {
        log_conf conf{};
        conf.level_limit = limit;
        conf.size_limit = size;
        conf.backup_count = backups;
        snprintf(conf.path, sizeof conf.path, "%s", path().c_str());
        set_log_conf(conf);
    }
    // The file's text without the time stamps.
    static std::string lines(const std::string& file)
    {
        std::string text = read_file(file);
        std::string out;
        for (size_t at = text.find("] ["); at != std::string::npos; at = text.find("] [", at + 1))
            out += text.substr(at + 2, text.find('\n', at) - at - 1);
        return out;
    }
};

// Text from the air: a control byte can never end the line or start a forged
// one, and a backslash is doubled so that an escape already in the text
// cannot pass for one the daemon made. Other bytes (UTF-8 SSIDs) stay.
TEST(log_escape, ControlBytesAndBackslashes)
{
    const std::pair<std::string, std::string> rows[] = {
        {"", ""},
        {"a\nb", "a\\x0ab"},
        {"a\\x0ab", "a\\\\x0ab"},
        {std::string("x\0y", 3), "x\\x00y"},
        {"\x1f \x7f~", "\\x1f \\x7f~"},
        {"caf\xc3\xa9", "caf\xc3\xa9"},
    };
    for (const auto& [in, out] : rows) {
        SCOPED_TRACE(in);
        EXPECT_EQ(log_escape(in), out);
    }
}

TEST_F(log_fault_test, level_limit_and_unformattable_messages)
{
    configure(6, 0x80000, 2);
    log_msg(0, log_lvl::info, "dropped");
    log_msg(0, log_lvl::note, "kept");
    // A wide character the C locale cannot convert: nothing to write.
    log_msg(0, log_lvl::error, "%ls", L"caf\u00e9");
    log_msg(0, log_lvl::error, "%s", "");  // an empty message is still a line
    EXPECT_EQ(lines(path()), "[NOTE ] : kept\n[ERROR] : \n");
}

// A failed write adds nothing to the running size: the next line does not
// rotate, and the file holds just that line.
TEST_F(log_fault_test, failed_write_leaves_size_and_file)
{
    configure(8, 10, 1);
    dorvfault::handle h = dorvfault::arm("write path=" + path() + " errno=ENOSPC");
    log_msg(0, log_lvl::error, "lost");
    log_msg(0, log_lvl::error, "second");
    EXPECT_EQ(dorvfault::fired(h), 1u);
    EXPECT_EQ(lines(path()), "[ERROR] : second\n");
    EXPECT_FALSE(exists(path() + ".0"));

    // A fresh start without the file counts from nothing again.
    ASSERT_EQ(unlink(path().c_str()), 0);
    log_reset_running_size();
    log_msg(0, log_lvl::error, "fresh");
    EXPECT_EQ(lines(path()), "[ERROR] : fresh\n");
    EXPECT_FALSE(exists(path() + ".0"));
}

// A link planted at the log's path is not followed; syslog hears of it once.
TEST_F(log_fault_test, planted_link_is_refused_and_told_once)
{
    std::string victim = testutil::at("/tmp/victim");
    write_file(victim, "");
    ASSERT_EQ(symlink(victim.c_str(), path().c_str()), 0);
    configure(8, 0x80000, 2);
    openlog(nullptr, LOG_PERROR, LOG_USER);
    ::testing::internal::CaptureStderr();
    log_msg(0, log_lvl::error, "one");
    log_msg(0, log_lvl::error, "two");
    std::string told = ::testing::internal::GetCapturedStderr();
    openlog(nullptr, 0, LOG_USER);
    closelog();
    EXPECT_EQ(read_file(victim), "");
    std::string line = "[dorvand] Refused " + path() + ": ";
    ASSERT_NE(told.find(line), std::string::npos) << told;
    EXPECT_EQ(told.find(line, told.find(line) + 1), std::string::npos) << told;
}

// Out-of-range settings are brought into range: a size limit above 1 MiB
// counts as 1 MiB, 0 backups as 1, 100 as 99.
TEST_F(log_fault_test, settings_are_limited)
{
    write_file(path(), std::string(0x100001, 'L'));
    configure(8, 0x200000, 0);
    log_msg(0, log_lvl::error, "rotated");
    std::string b0 = read_file(path() + ".0");
    EXPECT_EQ(b0.find_first_not_of('L'), 0x100001u);
    EXPECT_EQ(lines(path() + ".0"), "[ERROR] : rotated\n");
    EXPECT_FALSE(exists(path()));

    write_file(path(), std::string(20, 'L'));
    write_file(path() + ".97", "97");
    write_file(path() + ".98", "98");
    configure(8, 10, 100);
    log_msg(0, log_lvl::error, "rotated");
    EXPECT_EQ(read_file(path() + ".98"), "97");
    EXPECT_FALSE(exists(path() + ".99"));
}

}  // namespace
