// Every fixed path and file name of the daemon, named once.
#pragma once

// The daemon's build: each path is a constant. In the unit tests' build of
// the libraries (DORVAND_UNIT_TEST_PATHS) each is the text of a buffer that
// the test main may move under a private root before the first test, for a
// run that cannot have a mount namespace of its own (an ordinary user's).
#ifdef DORVAND_UNIT_TEST_PATHS
namespace paths {
// Registers `fixed` and returns its buffer, which holds `fixed` until the
// root is set (tests/unit/test_root.cpp).
const char* under_test_root(const char* fixed);
}  // namespace paths
#define DORVAND_PATH inline const char* const
#define DORVAND_FIXED(path) ::paths::under_test_root(path)
#else
#define DORVAND_PATH inline constexpr const char*
#define DORVAND_FIXED(path) path
#endif

namespace paths {

// The daemon's own.
DORVAND_PATH log_file = DORVAND_FIXED("/tmp/log/dorvand_log");
DORVAND_PATH pid_file = DORVAND_FIXED("/tmp/dorvand.pid");

// Board and configuration.
DORVAND_PATH board_file = DORVAND_FIXED("/etc/board");
DORVAND_PATH config_file = DORVAND_FIXED("/tmp/run/config");

// The configuration daemon.
DORVAND_PATH configd_get_socket = DORVAND_FIXED("/tmp/confd_get");
DORVAND_PATH configd_set_socket = DORVAND_FIXED("/tmp/confd_set");
DORVAND_PATH configd_stuck_marker = DORVAND_FIXED("/tmp/run/configd_stuck_notify");
DORVAND_PATH configd_check_program = DORVAND_FIXED("/usr/local/bin/check_configd_child");
DORVAND_PATH configd_check_flag = DORVAND_FIXED("/tmp/FT_Configd_Child_Check");
// The datagram transport's own ends, named by the daemon's pid.
DORVAND_PATH configd_set_local_format = DORVAND_FIXED("/tmp/dls_%d");
DORVAND_PATH configd_get_local_format = DORVAND_FIXED("/tmp/dlg_%d");

// Neighbours and key holders.
DORVAND_PATH event_socket = DORVAND_FIXED("/tmp/roam_sock");
DORVAND_PATH key_holders = DORVAND_FIXED("/var/roam_key_holders");
DORVAND_PATH key_holders_tmp = DORVAND_FIXED("/var/roam_key_holders.tmp");
DORVAND_PATH ap2mac = DORVAND_FIXED("/tmp/ap2_macaddr.txt");
DORVAND_PATH ap2mac_tmp = DORVAND_FIXED("/tmp/tmp_ap2_macaddr.txt");
DORVAND_PATH key_changes = DORVAND_FIXED("/tmp/ft_key_changed.txt");
DORVAND_PATH ft_script = DORVAND_FIXED("/usr/local/bin/fast_bss_transition.sh");

// Scanning, by radio index.
DORVAND_PATH wifitool = DORVAND_FIXED("/usr/sbin/wifitool");
DORVAND_PATH scan_dbs[3] = {DORVAND_FIXED("/tmp/scan_db_2g"), DORVAND_FIXED("/tmp/scan_db_5g"),
                            DORVAND_FIXED("/tmp/scan_db_5gh")};
// Where a database that SQLite cannot read is moved, to be examined.
DORVAND_PATH scan_dbs_corrupt[3] = {DORVAND_FIXED("/tmp/scan_db_2g.corrupt"), DORVAND_FIXED("/tmp/scan_db_5g.corrupt"),
                                    DORVAND_FIXED("/tmp/scan_db_5gh.corrupt")};
DORVAND_PATH scan_db_markers[3] = {DORVAND_FIXED("/tmp/DB2G_UPDATION_IN_PROGRESS"),
                                   DORVAND_FIXED("/tmp/DB5G_UPDATION_IN_PROGRESS"),
                                   DORVAND_FIXED("/tmp/DB5GH_UPDATION_IN_PROGRESS")};

}  // namespace paths
