// SPDX-License-Identifier: GPL-2.0-only
// Which node a device stands on, in trees as the kernel shows them on machines that have nbd, dm,
// md and file systems over several devices.
#include "host/fs_stack.h"

#include <filesystem>

#include "support/driver_fixture.h"

namespace zorv_test {
namespace {

namespace fs = std::filesystem;

struct recorded : ::testing::Test {
  void file(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(dir / path).parent_path());
    write_file(dir / path, bytes(text.begin(), text.end()));
  }
  void link(const std::string& path, const std::string& to) {
    fs::create_directories(fs::path(dir / path).parent_path());
    fs::create_symlink(to, dir / path);
  }
  // A device below sys/devices/virtual/block, and its number.
  void device(const std::string& name, const std::string& number) {
    file("sys/devices/virtual/block/" + name + "/dev", number + "\n");
    link("sys/dev/block/" + number, "../../devices/virtual/block/" + name);
  }
  void slave(const std::string& of, const std::string& name) {
    const std::string last = fs::path(name).filename();
    link("sys/devices/virtual/block/" + of + "/slaves/" + last, "../../" + name);
  }
  void process(int pid, const std::string& fd, const std::string& to, const std::string& info) {
    const std::string at = "proc/" + std::to_string(pid);
    link(at + "/fd/" + fd, to);
    file(at + "/fdinfo/" + fd, "pos:\t0\nflags:\t02100002\nmnt_id:\t26\nino:\t86\n" + info);
  }
  // The minor of the node below, -1 for none.
  int below(u32 major, u32 minor) {
    zorv::stack_view view{dir / "sys", dir / "proc", dir / "dev", [this] { return clients; }};
    const kernel::devt node = zorv::own_node_below(view, major, minor);
    return node == 0 ? -1 : static_cast<int>(kernel::minor_of(node));
  }

  temp_dir dir;
  std::vector<zorv::nbd_client_process> clients;
};

TEST_F(recorded, devices_above_the_kernels_nbd) {
  device("nbd0", "43:0");
  file("sys/devices/virtual/block/nbd0/pid", "4242\n");
  device("nbd0/nbd0p1", "43:1");
  file("sys/devices/virtual/block/nbd0/nbd0p1/partition", "1\n");
  device("nbd1", "43:32");
  file("sys/devices/virtual/block/nbd1/pid", "5000\n");
  device("nbd2", "43:64");  // not connected
  device("sdb", "8:16");
  device("sdc", "8:32");
  device("dm-0", "253:0");
  slave("dm-0", "sdb");
  slave("dm-0", "nbd0/nbd0p1");
  device("dm-1", "253:1");
  slave("dm-1", "sdb");
  device("md127", "9:127");
  slave("md127", "sdc");
  slave("md127", "dm-0");
  link("sys/fs/btrfs/7e1f/devices/md127", "../../../../devices/virtual/block/md127");
  link("sys/fs/btrfs/7e1f/devices/sdc", "../../../../devices/virtual/block/sdc");
  process(4242, "3", "socket:[777]", "");
  process(5000, "3", "socket:[778]", "");
  EXPECT_EQ(below(43, 0), -1) << "nobody is our client";
  // Its first process connected, forked and ended; the child holds the socket.
  clients = {{kernel::mkdev(100, 3), 4241, 777}};
  const struct {
    u32 major, minor;
    int node;
  } table[] = {{43, 0, 3},  {43, 1, 3},   {43, 32, -1}, {43, 64, -1}, {8, 16, -1},
               {253, 0, 3}, {253, 1, -1}, {9, 127, 3},  {8, 32, 3},   {11, 0, -1}};
  for (const auto& t : table)
    EXPECT_EQ(below(t.major, t.minor), t.node) << t.major << ":" << t.minor;
  // Set up by a process that gave the socket to the kernel and ended.
  clients.push_back({kernel::mkdev(100, 7), 4999, 900});
  fs::remove_all(dir / "proc/5000");
  EXPECT_EQ(below(43, 32), 7);
}

TEST_F(recorded, servers_of_file_systems) {
  process(4300, "5", "socket:[888]", "");
  process(4300, "7", "/dev/fuse", "fuse_connection:\t39\n");
  process(4400, "7", "/dev/fuse", "fuse_connection:\t40\n");
  clients = {{kernel::mkdev(100, 5), 4300, 888}};
  EXPECT_EQ(below(0, 39), 5);
  EXPECT_EQ(below(0, 40), -1) << "of another server";
  EXPECT_EQ(below(0, 41), -1);
  process(4300, "8", "/dev/fuse", "");  // a kernel that does not say which
  EXPECT_EQ(below(0, 41), 5);
  clients[0].peer_inode = 0;  // the host does not say whose socket it is: the process does
  EXPECT_EQ(below(0, 39), 5);
}

}  // namespace
}  // namespace zorv_test
