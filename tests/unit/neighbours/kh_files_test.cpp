// The ap2_macaddr file: lines created, BSSIDs appended once.
#include <string>

#include "nb_fixture.h"
#include "neighbours/neighbours.h"

namespace {

using testutil::exists;
using testutil::read_file;

constexpr const char* ap2mac = "/tmp/ap2_macaddr.txt";

class kh_files_test : public neighbours_test {};

TEST_F(kh_files_test, Ap2macAddCreatesAppendsAndSkipsDuplicates)
{
    EXPECT_EQ(ap2mac_update("wifi0vap0", "0A:1B:2C:3D:4E:60", 0), 0);
    EXPECT_FALSE(exists(ap2mac)) << "a deletion without a file creates nothing";
    EXPECT_EQ(ap2mac_update("wifi0vap0", "0A:1B:2C:3D:4E:50", 1), 0);
    EXPECT_EQ(read_file(ap2mac), "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50\n");
    EXPECT_EQ(ap2mac_update("wifi1vap3", "0A:1B:2C:3D:4E:71", 1), 0);
    EXPECT_EQ(ap2mac_update("wifi0vap0", "0A:1B:2C:3D:4E:60", 1), 0);
    EXPECT_EQ(ap2mac_update("wifi0vap0", "0A:1B:2C:3D:4E:50", 1), 0);
    EXPECT_EQ(read_file(ap2mac),
              "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:60\n"
              "ap2_macaddr_wifi1vap3=0A:1B:2C:3D:4E:71\n");
    EXPECT_FALSE(exists("/tmp/tmp_ap2_macaddr.txt"));
}

}  // namespace
