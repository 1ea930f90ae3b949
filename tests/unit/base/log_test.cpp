// Log file lines, level limit, rotation and configuration limits.
#include <regex>
#include <string>
#include <utility>

#include "base/log.h"
#include "test_util.h"

using testutil::exists;
using testutil::read_file;
using testutil::write_file;

namespace {

std::string path()
{
    return testutil::at("/tmp/log/dorvand_log");
}

class log_test : public sandbox_test {
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
};

TEST_F(log_test, RotationShiftsBackupsAndDropsTheOldest)
{
    write_file(path(), std::string(50, 'L'));
    write_file(path() + ".0", "backup zero");
    write_file(path() + ".1", "backup one");
    configure(8, 10, 2);
    log_msg(0, log_lvl::info, "trigger");
    EXPECT_EQ(read_file(path() + ".1"), "backup zero");
    std::string b0 = read_file(path() + ".0");
    EXPECT_EQ(b0.rfind(std::string(50, 'L'), 0), 0u);
    EXPECT_NE(b0.find("trigger"), std::string::npos);
    EXPECT_FALSE(exists(path() + ".2"));
}

// Text from the air: a control byte can never end the line or start a forged
// one, and a backslash is doubled so that an escape already in the text
// cannot pass for one the daemon made. Other bytes (UTF-8 SSIDs) stay.
TEST(log_escape, ControlBytesAndBackslashes)
{
    const std::pair<std::string, std::string> rows[] = {
        {"", ""},
        {"Corp Guest", "Corp Guest"},
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

}  // namespace
