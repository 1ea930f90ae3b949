// The 802.11r status of the VAPs, read from the configuration store.
#include "ftstatus/ft_status.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>

#include "base/files.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/spawn.h"
#include "board/board.h"
#include "configstore/dbcom.h"
#include "neighbours/neighbours.h"

ft_shared& ft_state()
{
    static ft_shared state;
    return state;
}

namespace {

constexpr int vaps_per_radio = 10;
constexpr int max_failed_checks = 72;
constexpr int max_empty_retries = 3;

struct setting_key {
    char text[256];
};

setting_key make_key(int radio, int vap)
{
    setting_key key{};
    snprintf(key.text, sizeof key.text, "%s:wlan%d:vap%d:%s", "system:vapSettings:vapSettingTable", radio, vap,
             "11rStatus");
    return key;
}

uint32_t vap_bit(int radio, int vap)
{
    return 1u << (vaps_per_radio * radio + vap);
}

const char* text_or_empty(const std::optional<std::string>& text)
{
    return text ? text->c_str() : "";
}

// Asks the checking program whether configd may be read now. Counts failed
// checks in `failed` (shared by a whole refresh); false once 72 have failed.
bool configd_ready(int& failed)
{
    while (failed < max_failed_checks) {
        log_msg(0, log_lvl::info, "Checking for configd child to avoid multiple dbcom get at same time\n");
        shell_run(64, "%s", paths::configd_check_program);
        if (file_exists(paths::configd_check_flag))
            return true;
        log_msg(0, log_lvl::info, " Checking for configd child retry count:%d \n", failed);
        sleep(5);
        ++failed;
    }
    return false;
}

// Reads one VAP's status for the refresh. Returns false when the read failed
// (the bit keeps its value). `empty_retries` is shared by the whole refresh.
bool read_refresh_status(const setting_key& key, int& empty_retries, int& status)
{
    std::optional<std::string> value;
    std::optional<std::string> error;
    for (;;) {
        if (dbcom_get(ft_state().config_handle, key.text, &value, &error) != 0) {
            log_msg(1, log_lvl::info, "dbcom get failed for %s [%s]\n", key.text, text_or_empty(error));
            return false;
        }
        if (value)
            break;
        if (empty_retries >= max_empty_retries) {
            value = "0";
            log_msg(0, log_lvl::info, " Assigning respto zero \n");
            break;
        }
        ++empty_retries;
        sleep(1);
    }
    status = atoi(value->c_str());
    return true;
}

// The refresh itself; the caller holds config_lock.
void refresh_locked()
{
    int failed_checks = 0;
    int empty_retries = 0;
    log_msg(0, log_lvl::info, "radios = %d \n", board().radio_count);
    for (int r = 0; r < board().radio_count; ++r) {
        for (int v = 0; v < vaps_per_radio; ++v) {
            setting_key key = make_key(r, v);
            int status = 0;
            if (!configd_ready(failed_checks) || !read_refresh_status(key, empty_retries, status))
                continue;
            log_msg(0, log_lvl::info, "wlan%dvap%d = %d\n", r, v, status);
            if (status == 1)
                ft_enabled_vaps().fetch_or(vap_bit(r, v));
            else
                ft_enabled_vaps().fetch_and(~vap_bit(r, v));
        }
    }
    if (ft_enabled_vaps().load() != 0 && file_exists(paths::key_holders)) {
        log_msg(0, log_lvl::info, "MKH exist\n");
        reload_key_holders();
    }
    log_msg(0, log_lvl::info, "ft_enabled_vaps  = %08X \n", ft_enabled_vaps().load());
}

// Reads one changed VAP for the signal update, up to three retries for an
// empty answer. False when a read failed.
bool read_changed_status(const setting_key& key, int& status)
{
    std::optional<std::string> value;
    std::optional<std::string> error;
    for (int retries = 0;; ++retries) {
        if (dbcom_get(ft_state().config_handle, key.text, &value, &error) != 0) {
            int err = errno;
            log_msg(1, log_lvl::error, "dbcom get failed [%d|%s] \n", err, strerror(err));
            return false;
        }
        log_msg(0, log_lvl::error, "resp = %s, r_cnt:%d \n", value ? value->c_str() : "(no value)", retries);
        if (value || retries >= max_empty_retries)
            break;
        sleep(1);
    }
    status = value ? atoi(value->c_str()) : 0;
    return true;
}

}  // namespace

void refresh_ft_status()
{
    std::lock_guard<std::timed_mutex> hold(ft_state().config_lock);
    refresh_locked();
}

void ft_status_update(int signo, int32_t value)
{
    std::lock_guard<std::timed_mutex> hold(ft_state().config_lock);
    log_msg(0, log_lvl::info, "Received %d signal | %d[%X] \n", signo, value, static_cast<unsigned>(value));
    uint32_t mask = static_cast<uint32_t>(value);
    for (int r = 0; r < board().radio_count; ++r) {
        for (int v = 0; v < vaps_per_radio; ++v) {
            if (!(mask & vap_bit(r, v)))
                continue;
            setting_key key = make_key(r, v);
            int status = 0;
            if (!read_changed_status(key, status))
                return;
            log_msg(0, log_lvl::info, "wifi%dvap%d - %s = %d \n", r, v, "11rStatus", status);
            key_holders_ft_status_changed(r, v, status != 0 ? 1 : 0);
            mask &= ~vap_bit(r, v);
            log_msg(0, log_lvl::info, "val = %d \n", static_cast<int>(mask));
        }
    }
    run_ft_script_if_key_holders();
    refresh_locked();
    log_msg(0, log_lvl::info, "ft_enabled_vaps = %08X \n", ft_enabled_vaps().load());
}
