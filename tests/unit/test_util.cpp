// Shared unit-test helpers.
#include "test_util.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include "base/log.h"

namespace testutil {

bool sandbox_active = false;  // set by main() once the private mounts or the private root are in place

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<unsigned char> read_bytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const std::string& text, unsigned mode)
{
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << text;
    }
    chmod(path.c_str(), mode);
}

bool exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

void reset_sandbox()
{
    if (!sandbox_active)
        GTEST_FAIL() << "tests must run inside the private mount namespace";
    const std::string r = test_root();
    const std::string cmd = "rm -rf " + r + "/tmp/* " + r + "/var/* " + r + "/usr/local/bin/* && mkdir -p " + r +
                            "/tmp/log " + r + "/tmp/run";
    if (system(cmd.c_str()) != 0)
        GTEST_FAIL() << "cannot reset the sandbox";
    log_reset_running_size();  // a missing log file keeps the running size, as at start-up
    log_init(8, 0x80000, 2, at("/tmp/log/dorvand_log").c_str());
}

std::string log_text()
{
    return read_file(at("/tmp/log/dorvand_log"));
}

int log_count(const std::string& needle)
{
    std::string text = log_text();
    int n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + needle.size()))
        ++n;
    return n;
}

void install_fake_script()
{
    write_file(at("/usr/local/bin/fast_bss_transition.sh"), "#!/bin/sh\necho run >> " + at("/tmp/script_runs") + "\n",
               0755);
}

int script_runs()
{
    std::string text = read_file(at("/tmp/script_runs"));
    int n = 0;
    for (char c : text)
        n += c == '\n';
    return n;
}

}  // namespace testutil
