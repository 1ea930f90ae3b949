// Log file lines, level limit, rotation and configuration limits.
#include <regex>
#include <string>

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

}  // namespace
