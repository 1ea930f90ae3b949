// Log file lines, level limit, rotation and configuration limits.
#include <regex>
#include <string>

#include "base/log.h"
#include "test_util.h"

using testutil::exists;
using testutil::read_file;
using testutil::write_file;

namespace {

constexpr const char* path = "/tmp/log/dorvand_log";

class log_test : public sandbox_test {
protected:
    void configure(uint32_t limit, uint32_t size, uint32_t backups)
    {
        log_conf conf{};
        conf.level_limit = limit;
        conf.size_limit = size;
        conf.backup_count = backups;
        snprintf(conf.path, sizeof conf.path, "%s", path);
        set_log_conf(conf);
    }
};

TEST_F(log_test, LineHasAsctimeStampLevelNameAndKeepsMessageNewline)
{
    log_msg(0, log_lvl::info, "[dorvand] Exiting from daemon\n");
    std::string text = read_file(path);
    std::regex line(R"(^\[(Mon|Tue|Wed|Thu|Fri|Sat|Sun) [A-Z][a-z]{2} [ 123]\d \d\d:\d\d:\d\d \d{4}\] \[INFO \] : )"
                    R"(\[dorvand\] Exiting from daemon\n\n$)");
    EXPECT_TRUE(std::regex_match(text, line)) << text;
    EXPECT_EQ(log_running_size(), text.size());
}

// Each named level prints its own name: the levels are part of every line's
// fixed text, so a level constant that moved would rename whole classes of
// lines.
TEST_F(log_test, EveryLevelPrintsItsName)
{
    const std::pair<unsigned, const char*> levels[] = {
        {log_lvl::emerg, "[EMERG]"}, {log_lvl::alert, "[ALERT]"}, {log_lvl::crit, "[CRIT ]"},
        {log_lvl::error, "[ERROR]"}, {log_lvl::warn, "[WARN ]"},  {log_lvl::note, "[NOTE ]"},
        {log_lvl::info, "[INFO ]"},  {log_lvl::debug, "[DEBUG]"},
    };
    configure(8, 0x80000, 2);
    for (const auto& [level, name] : levels) {
        SCOPED_TRACE(name);
        size_t before = read_file(path).size();
        log_msg(0, level, "x\n");
        EXPECT_EQ(read_file(path).substr(before).find(std::string("] ") + name + " : x"), 25u);
    }
}

// The start-up limit 8 lets every level into the file; 6 drops INFO and DEBUG.
TEST_F(log_test, LevelLimitFiltersTheFile)
{
    const char* names[] = {"EMERG", "ALERT", "CRIT ", "ERROR", "WARN ", "NOTE ", "INFO ", "DEBUG"};
    for (unsigned limit : {8u, 6u}) {
        testutil::reset_sandbox();
        configure(limit, 0x80000, 2);
        for (unsigned level = 0; level < 8; ++level)
            log_msg(1, level, "level %u\n", level);
        std::string text = read_file(path);
        for (unsigned level = 0; level < 8; ++level) {
            SCOPED_TRACE(testing::Message() << "limit " << limit << " level " << level);
            std::string expected = std::string("[") + names[level] + "] : level " + std::to_string(level);
            EXPECT_EQ(text.find(expected) != std::string::npos, level < limit);
        }
    }
}

TEST_F(log_test, SizeEqualToLimitDoesNotRotateButExceedingDoes)
{
    write_file(path, std::string(100, 'a'));
    configure(8, 100, 2);
    ASSERT_EQ(log_running_size(), 100u) << "the size of an existing file counts";
    log_msg(0, log_lvl::info, "first");
    EXPECT_FALSE(exists(std::string(path) + ".0")) << "a file at the limit must not rotate";
    std::string before = read_file(path);

    log_msg(0, log_lvl::info, "second");
    // The line that triggers the rotation lands in backup 0 ...
    std::string backup0 = read_file(std::string(path) + ".0");
    EXPECT_EQ(backup0.rfind(before, 0), 0u);
    EXPECT_NE(backup0.find("second"), std::string::npos);
    EXPECT_FALSE(exists(path));
    // ... and the next one starts a new file.
    log_msg(0, log_lvl::info, "third");
    std::string fresh = read_file(path);
    EXPECT_NE(fresh.find("third"), std::string::npos);
    EXPECT_EQ(fresh.find("second"), std::string::npos);
    // The running size counts the triggering line too, although it went to
    // the backup: rotation resets the count before that line is written.
    EXPECT_EQ(log_running_size(), backup0.size() - before.size() + fresh.size());
}

TEST_F(log_test, RotationShiftsBackupsAndDropsTheOldest)
{
    write_file(path, std::string(50, 'L'));
    write_file(std::string(path) + ".0", "backup zero");
    write_file(std::string(path) + ".1", "backup one");
    configure(8, 10, 2);
    log_msg(0, log_lvl::info, "trigger");
    EXPECT_EQ(read_file(std::string(path) + ".1"), "backup zero");
    std::string b0 = read_file(std::string(path) + ".0");
    EXPECT_EQ(b0.rfind(std::string(50, 'L'), 0), 0u);
    EXPECT_NE(b0.find("trigger"), std::string::npos);
    EXPECT_FALSE(exists(std::string(path) + ".2"));
}

TEST_F(log_test, ConfigurationIsClamped)
{
    const struct {
        uint32_t size_in, backups_in, size_out, backups_out;
    } cases[] = {{0x80000, 2, 0x80000, 2}, {0x100000, 99, 0x100000, 99}, {0x100001, 100, 0x100000, 99},
                 {0xFFFFFFFF, 0, 0x100000, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.size_in << "/" << c.backups_in);
        configure(8, c.size_in, c.backups_in);
        EXPECT_EQ(log_active_conf().size_limit, c.size_out);
        EXPECT_EQ(log_active_conf().backup_count, c.backups_out);
    }
}

TEST_F(log_test, LongMessageIsWrittenWhole)
{
    std::string big(5000, 'm');
    log_msg(0, log_lvl::debug, "%s|end", big.c_str());
    EXPECT_NE(read_file(path).find(big + "|end\n"), std::string::npos);
}

TEST_F(log_test, InitCutsPathTo255Characters)
{
    std::string long_path = "/tmp/" + std::string(300, 'p');
    log_init(8, 0x80000, 2, long_path.c_str());
    EXPECT_EQ(std::string(log_active_conf().path), long_path.substr(0, 255));
}

}  // namespace
