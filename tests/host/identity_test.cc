// SPDX-License-Identifier: GPL-2.0-only
// Which disk is it? Images for real, devices by what hosts have said of theirs.
#include "host/disk/identity.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "host/disk/disk.h"
#include "support/driver_fixture.h"

namespace zorv_test {

namespace {

// The identity that an image has while it is attached under that name.
std::string attached(const std::string& path, const std::string& name, std::size_t room = 1024) {
  std::string error;
  EXPECT_EQ(zorv::image_attach(path, name, zorv::access::read_write, &error), 0) << error;
  std::string text(room, '?');
  int rc = 0;
  {
    const client c(kernel::open_by_devnum(device_of("/dev/image/" + name), 1));
    rc = kernel::bdev_identity(c.bdev(), text.data(), room);
  }
  EXPECT_EQ(zorv::image_detach(name, &error), 0) << error;
  return rc == 0 ? std::string(text.c_str()) : std::to_string(rc);
}

}  // namespace

TEST(identity, an_image_is_itself_under_any_name_and_nobody_else) {
  const temp_dir dir;
  write_file(dir / "a", bytes(8192));
  const std::string a = attached(dir / "a", "one");
  ASSERT_NE(a, std::to_string(-ENODATA)) << "tests need a file system that keeps births";
  std::filesystem::rename(dir / "a", dir / "b");
  EXPECT_EQ(attached(dir / "b", "two"), a);
  EXPECT_EQ(attached(dir / "b", "two", 8), std::to_string(-ENAMETOOLONG));
  std::filesystem::remove(dir / "b");
  write_file(dir / "b", bytes(8192));  // most file systems give it the inode of the first
  EXPECT_NE(attached(dir / "b", "one"), a);
}

TEST(identity, a_device_is_told_by_what_stays_with_it) {
  const temp_dir dir;
  const zorv::host_trees trees{dir / "sys", dir / "udev"};
  write_file(dir / "disk.img", bytes(4096));
  std::string image;
  const int fd = ::open((dir / "disk.img").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(zorv::file_disk_identity(fd, dir / "disk.img", &image), 0);
  ::close(fd);
  const struct {
    std::string folder, number;
    std::string sys;  // files of its folder and their texts, a=1|b=2
    std::string udev, want;
  } table[] = {
      {"sda", "8:0", "device/wwid=naa.5000c500a1b2c3d4\n", "", "disk naa.5000c500a1b2c3d4"},
      {"sda/sda1", "8:1", "partition=1|start=2048\n", "E:ID_PART_ENTRY_UUID=6f-01\n",
       "partition 6f-01 from 2048 of disk naa.5000c500a1b2c3d4"},
      {"sda/sda2", "8:2", "partition=2|start=4096\n", "",
       "partition from 4096 of disk naa.5000c500a1b2c3d4"},
      {"sdb", "8:16", "device/wwid=t10.ATA  \t X\x01Y  \n", "", "disk t10.ATA X Y"},
      {"sdc", "8:32", "", "S:x\nE:ID_SERIAL=WD_1\nE:ID_WWN=0x5\n", "disk 0x5"},
      {"sdd", "8:48", "device/wwid=t10.ATA QEMU HARDDISK QM00001", "", ""},
      {"sde", "8:64", "removable=1|device/wwid=naa.7", "", ""},
      {"vda", "254:0", "serial=\n", "", ""},
      {"vda/vda1", "254:1", "partition=1|start=63", "", ""},
      {"vda/vda2", "254:2", "partition=2|start=99", "E:ID_PART_ENTRY_UUID=9-02",
       "partition 9-02 from 99"},
      {"vdb", "254:16", "serial=backup-7", "", "disk backup-7"},
      {"nvme0n1", "259:0", "wwid=eui.0025385b71b0a1c2\n", "", "disk eui.0025385b71b0a1c2"},
      {"mmcblk0", "179:0", "device/cid=1b534d30\n|device/serial=0x0", "", "card 1b534d30"},
      {"dm-3", "253:3", "dm/uuid=LVM-abc\n|dm/name=vg-lv", "", "dm LVM-abc"},
      {"dm-4", "253:4", "dm/uuid=\n", "E:ID_SERIAL=wrong", ""},
      {"md0", "9:0", "md/level=raid1", "E:MD_UUID=1:2:3:4", "md 1:2:3:4"},
      {"nbd0", "43:0", "pid=77", "", ""},
      {"loop9", "7:9",
       "loop/backing_file=" + (dir / "disk.img") + "|loop/offset=512\n|loop/sizelimit=0\n", "",
       "loop from 512 limit 0 of " + image},
      {"loop9/loop9p1", "259:9", "partition=1|start=8", "",
       "partition from 8 of loop from 512 limit 0 of " + image},
      {"loop7", "7:7",
       "loop/backing_file=" + (dir / "disk.img") + "|loop/offset=0|loop/sizelimit=0\n", "", image},
      {"loop8", "7:8", "loop/backing_file=/none (deleted)", "", ""},
  };
  std::filesystem::create_directories(dir / "sys/dev/block");
  std::filesystem::create_directories(dir / "udev");
  for (const auto& t : table) {
    const std::filesystem::path folder = dir / ("sys/block/" + t.folder);
    std::filesystem::create_directories(folder);
    std::filesystem::create_symlink("../../block/" + t.folder, dir / ("sys/dev/block/" + t.number));
    const auto put = [](const std::filesystem::path& path, const std::string& text) {
      std::filesystem::create_directories(path.parent_path());
      write_file(path, bytes(text.begin(), text.end()));
    };
    put(folder / "dev", t.number + "\n");
    std::istringstream files(t.sys);
    for (std::string f; std::getline(files, f, '|');) {
      put(folder / f.substr(0, f.find('=')), f.substr(f.find('=') + 1));
    }
    if (!t.udev.empty()) put(dir / ("udev/b" + t.number), t.udev);
  }
  for (const auto& t : table) {
    const auto colon = t.number.find(':');
    const kernel::devt dev =
        kernel::mkdev(static_cast<u32>(std::stoul(t.number)),
                      static_cast<u32>(std::stoul(t.number.substr(colon + 1))));
    std::string text;
    EXPECT_EQ(zorv::device_disk_identity(dev, trees, &text), t.want.empty() ? -ENODATA : 0);
    EXPECT_EQ(text, t.want) << t.folder;
  }
  std::string text;
  EXPECT_EQ(zorv::device_disk_identity(kernel::mkdev(8, 99), trees, &text), -ENODATA);
}

}  // namespace zorv_test
