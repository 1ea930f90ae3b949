// The per-VAP neighbour BSSID lines of /tmp/ap2_macaddr.txt: adding and
// deleting one BSSID, and dropping a VAP's line. Callers hold kh_lock.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/files.h"
#include "base/log.h"
#include "base/spawn.h"
#include "board/board.h"
#include "neighbours/nb_internal.h"

namespace {

// Lines are read and written with a 1024-byte buffer: at most 1022
// characters, the newline and the terminator.
constexpr size_t max_line = nb::ap2mac_max_line;
constexpr size_t max_bssid_text = 17;
constexpr size_t key_len = 22;  // "ap2_macaddr_wifiXvapY=", where the first BSSID starts
constexpr size_t kept_line_min = 20;

// Distinct numbers naming the call sites of the diagnostic lines.
constexpr int site_new_file = 101;
constexpr int site_new_line = 102;
constexpr int site_read = 103;
constexpr int site_added = 104;
constexpr int site_delete = 105;
constexpr int site_deleted = 106;
constexpr int site_vap_kept = 107;

enum class tmp_msg { update, remove_vap };

void log_open_failure(const char* path, int err)
{
    log_msg(0, log_lvl::error, "[dorvand] \n Failed to open the AP2MAC file \"(%s)\" [ Reason = %s(%d)]", path,
            strerror(err), err);
}

void mark_stale()
{
    neighbours().files_stale = true;
}

void log_write_failure(const char* path, int err)
{
    log_msg(0, log_lvl::error, "[dorvand] \n Failed to write the AP2MAC file \"(%s)\" [ Reason = %s(%d)]", path,
            strerror(err), err);
}

// Appends one line; logs it as written. A line that cannot be written
// leaves the file as it was.
int append_line(const std::string& line, int site, bool report_failure)
{
    append_file f;
    if (!f.open(paths::ap2mac)) {
        if (report_failure)
            log_open_failure(paths::ap2mac, errno);
        mark_stale();
        return -1;
    }
    fprintf(f.get(), "%s\n", line.c_str());
    if (!f.close()) {
        log_write_failure(paths::ap2mac, errno);
        mark_stale();
        return -1;
    }
    log_msg(0, log_lvl::error, "[%d] mac_str_cpy:%s\n", site, line.c_str());
    return 0;
}

// True when grep started and printed nothing for the key: the VAP has no
// line yet.
bool key_line_missing(const char* key)
{
    char cmd[256];
    snprintf(cmd, sizeof cmd, "grep \"%s\" %s", key, paths::ap2mac);
    std::string out;
    if (shell_read(cmd, out) != 0) {
        // The rewrite that follows adds nothing to a line that is not there:
        // the retry writes the line from the list.
        mark_stale();
        return false;
    }
    char word[129];
    return sscanf(out.c_str(), "%128s", word) != 1;
}

// Runs `edit` over every line of the file (newline removed) into the
// temporary file and renames that over the original. `edit` returns the line
// to write, or nothing to drop it. The temporary file never outlives a
// failure.
template <typename Edit> int rewrite_ap2mac(tmp_msg which, Edit edit)
{
    file_ptr in = open_owned_file(paths::ap2mac, "r");
    if (!in) {
        int err = errno;
        log_open_failure(paths::ap2mac, err);
        if (err != ENOENT)
            mark_stale();
        return -1;
    }
    replace_file out(paths::ap2mac_tmp, paths::ap2mac);
    if (!out.open()) {
        int err = errno;
        if (which == tmp_msg::update)
            log_msg(0, log_lvl::error, "[dorvand] \n Failed to open the TMP AP2MAC file \"(%s)\" [ Reason = %s(%d)]",
                    paths::ap2mac_tmp, strerror(err), err);
        else
            log_msg(0, log_lvl::error, "[dorvand] \n Failed to open the TMP AP2MAC file \"(%s)\"  [ Reason = %s(%d)]",
                    paths::ap2mac_tmp, strerror(err), err);
        mark_stale();
        return -1;
    }
    char line[max_line + 2];
    nb::line_status st;
    while ((st = nb::read_line(in.get(), line, max_line)) != nb::line_status::end) {
        if (st == nb::line_status::too_long) {
            log_msg(0, log_lvl::error, "[dorvand] Dropped a line of %s longer than %zu characters\n", paths::ap2mac,
                    max_line);
            continue;
        }
        if (std::optional<std::string> kept = edit(std::string_view(line)))
            fprintf(out.get(), "%s\n", kept->c_str());
    }
    in.reset();
    if (!out.commit()) {
        int err = errno;
        log_msg(0, log_lvl::error, "[dorvand] \n Failed to write the TMP AP2MAC file \"(%s)\" [ Reason = %s(%d)]",
                paths::ap2mac_tmp, strerror(err), err);
        mark_stale();
        return -1;
    }
    return 0;
}

std::string add_to_line(std::string_view line, const char* text)
{
    std::string out(line);
    if (line.find(text) != std::string_view::npos)
        return out;
    if (out.size() + 1 + std::strlen(text) > max_line) {
        log_msg(0, log_lvl::error, "[dorvand] ap2_macaddr line full, %s not added\n", text);
        return out;
    }
    out += ' ';
    out += text;
    log_msg(0, log_lvl::error, "[%d] mac_str after additon:%s\n", site_added, out.c_str());
    return out;
}

// Rebuilds the line from the key and every BSSID but `text`, each followed
// by one blank. `last_token` carries the token last split off (the whole
// first token when the line had no other) across lines, for the diagnostic
// line only.
std::string delete_from_line(std::string_view line, const std::string& key, const char* text, std::string& last_token)
{
    std::string rebuilt = key + "=";
    log_msg(0, log_lvl::debug, "[%d] addr:%s, mac_str:%s, mac_str_cpy:%s, param:%d\n", site_delete, last_token.c_str(),
            std::string(line).c_str(), rebuilt.c_str(), 0);
    bool first = true;
    size_t pos = 0;
    while ((pos = line.find_first_not_of(' ', pos)) != std::string_view::npos) {
        size_t end = line.find(' ', pos);
        std::string_view token = line.substr(pos, end == std::string_view::npos ? end : end - pos);
        pos = end;
        // The first token is the key, "=" and the first BSSID.
        std::string_view bssid = !first ? token : token.size() > key_len ? token.substr(key_len) : std::string_view{};
        first = false;
        last_token.assign(token);
        if (bssid != text) {
            // Each token gains a blank, and a short first token the key: a
            // line the daemon did not write could outgrow the bound, and the
            // next rewrite would drop all of it.
            if (rebuilt.size() + bssid.size() + 1 > max_line) {
                log_msg(0, log_lvl::error, "[dorvand] ap2_macaddr line full, %s dropped\n", std::string(bssid).c_str());
                continue;
            }
            rebuilt.append(bssid);
            rebuilt += ' ';
        }
    }
    log_msg(0, log_lvl::error, "[%d] mac_str_cpy after delete:%s\n", site_deleted, rebuilt.c_str());
    return rebuilt;
}

}  // namespace

int ap2mac_update(const char* vap, const char* text, int op)
{
    size_t text_len = std::strlen(text);
    // GCOVR_EXCL_START: callers pass op 0 or 1 and a 17-character BSSID text
    if ((op != 0 && op != 1) || text_len == 0 || text_len > max_bssid_text) {
        log_msg(0, log_lvl::error, "[dorvand] ap2mac_update refused: op %d, BSSID text \"%.32s\"\n", op, text);
        return -1;
    }
    // GCOVR_EXCL_STOP
    char key_buf[128];
    snprintf(key_buf, sizeof key_buf, "%s_%s", "ap2_macaddr", vap);
    const std::string key(key_buf);
    if (!open_owned_file(paths::ap2mac, "r")) {
        if (op == 0)
            return 0;
        return append_line(key + "=" + text, site_new_file, true);
    }
    if (op == 1 && key_line_missing(key_buf) && append_line(key + "=" + text, site_new_line, false) == 0)
        return 0;
    std::string last_token;
    return rewrite_ap2mac(tmp_msg::update, [&](std::string_view line) {
        return nb::ap2mac_update_line(line, key, text, op, last_token);
    });
}

int ap2mac_remove_vap(const char* key)
{
    return rewrite_ap2mac(tmp_msg::remove_vap,
                          [&](std::string_view line) { return nb::ap2mac_remove_line(line, key); });
}

std::optional<std::string> nb::ap2mac_update_line(std::string_view line, const std::string& key, const char* text,
                                                  int op, std::string& last_token)
{
    log_msg(0, log_lvl::error, "[%d] mac_str:%s\n", site_read, std::string(line).c_str());
    if (line.size() >= 2 && line.find(key) != std::string_view::npos)
        return op == 1 ? add_to_line(line, text) : delete_from_line(line, key, text, last_token);
    if (line.size() >= kept_line_min)
        return std::string(line);
    return std::nullopt;
}

std::optional<std::string> nb::ap2mac_remove_line(std::string_view line, const char* key)
{
    if (line.find(key) != std::string_view::npos || line.size() < kept_line_min)
        return std::nullopt;
    std::string kept(line);
    log_msg(0, log_lvl::error, "%d [dorvand] str:%s, buf:%s\n", site_vap_kept, kept.c_str(), key);
    return kept;
}

int ap2mac_rebuild(uint32_t mask)
{
    // Every enabled VAP's line as the list gives it, in the file's order;
    // other lines are kept as a rewrite keeps them.
    std::vector<std::pair<std::string, std::string>> wanted;  // key and "=" prefix, whole line
    // Lines of VAPs with 802.11r off go: their removal may be what failed.
    std::vector<std::string> unwanted;
    for (int r = 0; r < board().radio_count && r < 3; ++r) {
        for (int v = 0; v < 10; ++v) {
            char key[32];
            snprintf(key, sizeof key, "%s_wifi%dvap%d=", "ap2_macaddr", r, v);
            if (!((mask >> (10 * r + v)) & 1U)) {
                unwanted.emplace_back(key);
                continue;
            }
            std::string line = key;
            for (const kh_entry* e = neighbours().kh_list.next; e != &neighbours().kh_list; e = e->next) {
                for (int k = 0; k < 3; ++k) {
                    std::array<char, 18> text =
                        nb::neighbour_bssid_text(e->mac, e->mac[5], k, v, nb::offsets_for(e->family));
                    if (line.find(text.data()) != std::string::npos || line.size() + 1 + 17 > max_line)
                        continue;
                    if (line.size() > key_len)
                        line += ' ';
                    line += text.data();
                }
            }
            wanted.emplace_back(key, line);
        }
    }
    std::vector<bool> done(wanted.size(), false);
    replace_file out(paths::ap2mac_tmp, paths::ap2mac);
    if (!out.open()) {
        log_write_failure(paths::ap2mac_tmp, errno);
        return -1;
    }
    // A file that cannot be read (missing, or refused) is written anew.
    if (file_ptr in = open_owned_file(paths::ap2mac, "r")) {
        char line[max_line + 2];
        nb::line_status st;
        while ((st = nb::read_line(in.get(), line, max_line)) != nb::line_status::end) {
            std::string_view sv(line);
            if (st == nb::line_status::too_long || sv.size() < kept_line_min ||
                std::any_of(unwanted.begin(), unwanted.end(), [&](const std::string& k) { return sv.starts_with(k); }))
                continue;
            size_t i = 0;
            while (i < wanted.size() && sv.substr(0, wanted[i].first.size()) != wanted[i].first)
                ++i;
            if (i == wanted.size()) {
                fprintf(out.get(), "%s\n", line);
            } else if (!done[i]) {
                fprintf(out.get(), "%s\n", wanted[i].second.c_str());
                done[i] = true;
            }
        }
    }
    const bool any = !dlist_is_empty(&neighbours().kh_list);
    for (size_t i = 0; i < wanted.size(); ++i) {
        if (!done[i] && any)
            fprintf(out.get(), "%s\n", wanted[i].second.c_str());
    }
    if (!out.commit()) {
        log_write_failure(paths::ap2mac_tmp, errno);
        return -1;
    }
    return 0;
}
