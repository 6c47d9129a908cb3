// The Linux ASPI module: adapters and devices found in a sysfs tree, requests
// built from ASPI blocks and answers read back, against a fake tree and a
// fake device on a socket pair; then the real module on this machine.
// (Windows has its own ASPI layer.)
#include <gtest/gtest.h>
#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "modules/aspisg/SgBus.h"
#include "tests/lib/sources/SourceHelpers.h"

namespace sxtest {
namespace {

using namespace sx::aspisg;

// A generic node in the sysfs tree `sys`, linked to the device at `address`
// (the link's last part names the device).
void GenericNode(const fs::path& sys, const std::string& sg, const std::string& address) {
  const fs::path device = sys / "devices" / "pci" / address, node = sys / "class" / "scsi_generic" / sg;
  fs::create_directories(device);
  fs::create_directories(node);
  fs::create_directory_symlink(device, node / "device");
}

TEST(SgBus, AdaptersAndGenericNodesFromSysfs) {
  TempRoot root;
  const fs::path sys = root.Path() / "sys", hosts = sys / "class" / "scsi_host";
  for (const auto& [host, name] : {std::pair{"host10", "sym53c8xx_and_more"}, {"host2", "ahci"}, {"host0", ""},
                                   {"hostile", "x"}, {"host", "x"}})
    if (*name) WriteFile(hosts / host / "proc_name", std::string(name) + "\n");
    else fs::create_directories(hosts / host);
  for (const auto& [sg, address] : {std::pair{"sg0", "2:0:3:0"}, {"sg1", "2:1:4:0"}, {"sg7", "10:0:4:0"}})
    GenericNode(sys, sg, address);
  fs::create_directories(sys / "class" / "scsi_generic" / "sg9");  // no device link

  const auto adapters = ListAdapters(sys.string());
  std::vector<std::string> got;
  for (const SgAdapter& a : adapters) got.push_back(std::to_string(a.Host) + ":" + a.Identifier);
  EXPECT_EQ(got, (std::vector<std::string>{"0:", "2:ahci", "10:sym53c8xx_and_mo"})) << "by number, names cut to 16";
  EXPECT_EQ(FindGenericDevice(sys.string(), 2, 3, 0), "sg0");
  EXPECT_EQ(FindGenericDevice(sys.string(), 10, 4, 0), "sg7");
  EXPECT_EQ(FindGenericDevice(sys.string(), 2, 4, 0), "") << "channel 1 is not ASPI's";
  EXPECT_EQ(FindGenericDevice(sys.string(), 1, 3, 0), "");
  EXPECT_TRUE(ListAdapters((root.Path() / "nothing").string()).empty());
}

// A device at the other end of a socket pair, answering each request with
// `answer` (which may fill the caller's buffers, as the kernel does).
class FakeDevice {
 public:
  explicit FakeDevice(std::function<bool(sg_io_hdr_t&)> answer) {
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds_), 0);
    thread_ = std::thread([this, answer] {
      sg_io_hdr_t h{};
      while (::read(fds_[1], &h, sizeof h) == static_cast<ssize_t>(sizeof h)) {
        Seen = h;
        if (answer(h)) (void)!::write(fds_[1], &h, sizeof h);
      }
    });
  }
  ~FakeDevice() {
    ::shutdown(fds_[0], SHUT_RDWR);
    thread_.join();
    ::close(fds_[0]);
    ::close(fds_[1]);
  }
  int Fd() const { return fds_[0]; }
  sg_io_hdr_t Seen{};

 private:
  int fds_[2] = {-1, -1};
  std::thread thread_;
};

SRB_ExecSCSICmd Inquiry(uint8_t* data, uint8_t flags = 0) {
  SRB_ExecSCSICmd srb{};
  srb.SRB_Cmd = SC_EXEC_SCSI_CMD;
  srb.SRB_Flags = flags;
  srb.SRB_BufLen = 90;
  srb.SRB_BufPointer = data;
  srb.SRB_SenseLen = 22;
  srb.SRB_CDBLen = 6;
  const uint8_t cdb[6] = {0x12, 0, 0, 0, 90, 0};
  std::memcpy(srb.CDBByte, cdb, 6);
  return srb;
}

// The start of a scanner's inquiry answer: device type 6, the vendor at byte 8.
const std::string kInquiryAnswer("\6\0\0\0\0\0\0\0CORVANE", 15);

TEST(SgBus, RequestsAndAnswers) {
  uint8_t data[90] = {};
  {
    SCOPED_TRACE("a scanner answers");
    FakeDevice device([](sg_io_hdr_t& h) {
      return std::memcpy(h.dxferp, kInquiryAnswer.data(), kInquiryAnswer.size()), true;
    });
    SRB_ExecSCSICmd srb = Inquiry(data);
    EXPECT_EQ(ExecuteOnDevice(device.Fd(), srb, 1000), SS_COMP);
    EXPECT_EQ(srb.SRB_Status, SS_COMP);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data), kInquiryAnswer.size()), kInquiryAnswer);
    // No more sense than the block holds.
    const sg_io_hdr_t& h = device.Seen;
    EXPECT_EQ((std::vector<int64_t>{h.interface_id, h.dxfer_direction, h.dxfer_len, h.cmd_len, h.mx_sb_len, h.timeout}),
              (std::vector<int64_t>{'S', SG_DXFER_FROM_DEV, 90, 6, 16, 1000}));
  }
  {
    SCOPED_TRACE("check condition with sense data");
    FakeDevice device([](sg_io_hdr_t& h) {
      return h.status = 2, h.driver_status = 0x08, h.sb_len_wr = 1, static_cast<uint8_t*>(h.sbp)[0] = 0x70, true;
    });
    SRB_ExecSCSICmd srb = Inquiry(data);
    EXPECT_EQ(ExecuteOnDevice(device.Fd(), srb, 1000), SS_ERR);
    EXPECT_TRUE(srb.SRB_TargStat == 2 && srb.SenseArea[0] == 0x70);
  }
  {
    SCOPED_TRACE("the adapter fails");
    FakeDevice device([](sg_io_hdr_t& h) { return h.host_status = 0x1234, true; });
    SRB_ExecSCSICmd srb = Inquiry(data);
    EXPECT_EQ(ExecuteOnDevice(device.Fd(), srb, 1000), SS_ERR);
    EXPECT_EQ(srb.SRB_HaStat, 0xFF);
  }
  {
    SCOPED_TRACE("no answer: given up after the timeout and its slack");
    FakeDevice device([](sg_io_hdr_t&) { return false; });
    SRB_ExecSCSICmd srb = Inquiry(data);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ExecuteOnDevice(device.Fd(), srb, 20), SS_ERR);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  }
  SRB_ExecSCSICmd out = Inquiry(data, SRB_DIR_OUT), none = Inquiry(nullptr);
  EXPECT_EQ(BuildRequest(out, 5).dxfer_direction, SG_DXFER_TO_DEV);
  EXPECT_EQ(BuildRequest(none, 5).dxfer_direction, SG_DXFER_NONE);
  EXPECT_EQ(BuildRequest(none, 5).dxfer_len, 0u);
}

struct SgModule {
  SgModule() {
    handle = dlopen(SX_TEST_ASPISG, RTLD_NOW | RTLD_LOCAL);
    EXPECT_NE(handle, nullptr) << dlerror();
    if (!handle) return;
    support = reinterpret_cast<SxGetAspiSupportInfoFn>(dlsym(handle, "GetASPI32SupportInfo"));
    send = reinterpret_cast<SxSendAspiCommandFn>(dlsym(handle, "SendASPI32Command"));
  }
  ~SgModule() {
    if (handle) dlclose(handle);
  }
  void* handle = nullptr;
  SxGetAspiSupportInfoFn support = nullptr;
  SxSendAspiCommandFn send = nullptr;
};

// The whole module on a fake tree: a node that is no sg device answers with
// an error, a missing node with "no device", a missing adapter with "invalid".
TEST(SgModule, DegradesOnNodesThatAreNotDevices) {
  TempRoot root;
  const fs::path sys = root.Path() / "sys", dev = root.Path() / "dev";
  WriteFile(sys / "class" / "scsi_host" / "host0" / "proc_name", "fake\n");
  for (const auto& [sg, address] : {std::pair{"sg0", "0:0:1:0"}, {"sg1", "0:0:2:0"}}) GenericNode(sys, sg, address);
  WriteFile(dev / "sg0", "");  // a plain file where the node should be; sg1 is missing
  ScopedEnv sysfs("SX_SCSI_SYSFS", sys.c_str()), devfs("SX_SCSI_DEV", dev.c_str());
  SgModule m;
  ASSERT_TRUE(m.support && m.send);
  EXPECT_EQ(m.support(), (uint32_t{SS_COMP} << 8) | 1);
  SRB_HAInquiry ha{};
  ha.SRB_HaId = 0;
  EXPECT_EQ(m.send(&ha), SS_COMP);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(ha.HA_Identifier)), "fake");
  ha.SRB_HaId = 1;
  EXPECT_EQ(m.send(&ha), SS_INVALID_HA);
  uint8_t data[90] = {};
  for (const auto& [target, status] : {std::pair{1, SS_ERR}, {2, SS_NO_DEVICE}, {3, SS_NO_DEVICE}}) {
    SRB_ExecSCSICmd srb = Inquiry(data);
    srb.SRB_Target = static_cast<uint8_t>(target);
    EXPECT_EQ(m.send(&srb), static_cast<uint32_t>(status)) << target;
    EXPECT_EQ(srb.SRB_Status, status) << target;
  }
}

// This machine's own /sys and /dev: whatever it has, every adapter and
// target answers promptly, and list building through the library with this
// module as the system's ASPI ends with the drivers listed.
TEST(SgModule, RunsAgainstThisMachine) {
  ScopedEnv sysfs("SX_SCSI_SYSFS", nullptr), devfs("SX_SCSI_DEV", nullptr);
  {
    SgModule m;
    ASSERT_TRUE(m.support && m.send);
    const uint32_t info = m.support();
    const uint32_t adapters = info & 0xFF;
    EXPECT_EQ(info >> 8, adapters ? SS_COMP : SS_NO_ADAPTERS);
    uint8_t data[90] = {};
    const auto start = std::chrono::steady_clock::now();
    for (uint32_t a = 0; a < adapters; ++a) {
      SRB_HAInquiry ha{};
      ha.SRB_HaId = static_cast<uint8_t>(a);
      EXPECT_EQ(m.send(&ha), SS_COMP);
      for (uint8_t target = 0; target < 7; ++target) {
        SRB_ExecSCSICmd srb = Inquiry(data);
        srb.SRB_HaId = static_cast<uint8_t>(a);
        srb.SRB_Target = target;
        m.send(&srb);
        EXPECT_NE(srb.SRB_Status, SS_PENDING);
      }
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2 * 7 * (adapters + 1)));
  }
  TempRoot root;
  const fs::path system = root.Path() / "windows" / "system32";
  fs::create_directories(system);
  fs::copy_file(SX_TEST_ASPISG, system / "wnaspi32.dll");
  root.InstallVscan("Corvane/QM7110", ScannerIni("QM7110"));
  Library lib;
  const auto list = Enumerate(lib);
  ASSERT_FALSE(list.empty());
  EXPECT_EQ(Text(list.back().DisplayName), DisplayName("USB", "QM7110"));
}

}  // namespace
}  // namespace sxtest
