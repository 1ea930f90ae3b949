// Every fixed path and file name of the daemon, named once.
#pragma once

namespace paths {

// The daemon's own.
inline constexpr const char* log_file = "/tmp/log/dorvand_log";
inline constexpr const char* pid_file = "/tmp/dorvand.pid";

// Board and configuration.
inline constexpr const char* board_file = "/etc/board";
inline constexpr const char* config_file = "/tmp/run/config";

// The configuration daemon.
inline constexpr const char* configd_get_socket = "/tmp/confd_get";
inline constexpr const char* configd_set_socket = "/tmp/confd_set";
inline constexpr const char* configd_stuck_marker = "/tmp/run/configd_stuck_notify";
inline constexpr const char* configd_check_program = "/usr/local/bin/check_configd_child";
inline constexpr const char* configd_check_flag = "/tmp/FT_Configd_Child_Check";
// The datagram transport's own ends, named by the daemon's pid.
inline constexpr const char* configd_set_local_format = "/tmp/dls_%d";
inline constexpr const char* configd_get_local_format = "/tmp/dlg_%d";

// Neighbours and key holders.
inline constexpr const char* event_socket = "/tmp/roam_sock";
inline constexpr const char* key_holders = "/var/roam_key_holders";
inline constexpr const char* key_holders_tmp = "/var/roam_key_holders.tmp";
inline constexpr const char* ap2mac = "/tmp/ap2_macaddr.txt";
inline constexpr const char* ap2mac_tmp = "/tmp/tmp_ap2_macaddr.txt";
inline constexpr const char* key_changes = "/tmp/ft_key_changed.txt";
inline constexpr const char* ft_script = "/usr/local/bin/fast_bss_transition.sh";

// Scanning, by radio index.
inline constexpr const char* wifitool = "/usr/sbin/wifitool";
inline constexpr const char* scan_dbs[3] = {"/tmp/scan_db_2g", "/tmp/scan_db_5g", "/tmp/scan_db_5gh"};
// Where a database that SQLite cannot read is moved, to be examined.
inline constexpr const char* scan_dbs_corrupt[3] = {"/tmp/scan_db_2g.corrupt", "/tmp/scan_db_5g.corrupt",
                                                    "/tmp/scan_db_5gh.corrupt"};
inline constexpr const char* scan_db_markers[3] = {"/tmp/DB2G_UPDATION_IN_PROGRESS", "/tmp/DB5G_UPDATION_IN_PROGRESS",
                                                   "/tmp/DB5GH_UPDATION_IN_PROGRESS"};

}  // namespace paths
