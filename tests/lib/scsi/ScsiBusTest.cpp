// SCSI scanners found over ASPI, against the simulated bus: which targets
// become data sources, how they are named, and which driver claims them.
#include <gtest/gtest.h>

#include <chrono>

#include "modules/aspisim/AspiBus.h"
#include "tests/lib/sources/SourceHelpers.h"

namespace sxtest {
namespace {

// The maker's QM7110 scanner, revision 1.00, as an inquiry answers.
std::string Qm7110(const std::string& extra = "") {
  return "Vendor=CORVANE\nProduct=QM7110\nRevision=1.00\n" + extra;
}

// "ID#<t> - " + product padded to 16 + four blanks + revision.
std::string ScsiName(int target, const std::string& product, const std::string& revision = "1.00") {
  return "ID#" + std::to_string(target) + " - " + product + std::string(16 - product.size(), ' ') + "    " +
         revision;
}

class ScsiBus : public ::testing::Test {
 protected:
  // The simulated ASPI module in the system folder, with its bus.
  void InstallBus(const std::string& bus) {
    const fs::path system = root_.System();
    fs::create_directories(system);
    fs::copy_file(SX_TEST_ASPISIM, system / "wnaspi32.dll", fs::copy_options::overwrite_existing);
    WriteFile(system / "aspibus.ini", bus);
  }
  // A SCSI driver: vscan reporting port SCSI, the target as its device id.
  void InstallDriver(const std::string& folder, const std::string& model, int target) {
    root_.InstallVscan("Corvane/" + folder, ScannerIni(model, "SCSI", "1.00", std::to_string(target)));
  }
  std::vector<SxDataSource> List() {
    Library lib;
    return Enumerate(lib);
  }
  // "name|port|adapter" of every listed entry, sorted.
  Strings Listed() {
    Strings out;
    for (const SxDataSource& ds : List())
      out.push_back(Text(ds.DisplayName) + "|" + Text(ds.PortName) + "|" + std::to_string(ds.HostAdapter));
    std::sort(out.begin(), out.end());
    return out;
  }

  TempRoot root_;
};

// The maker's own scanner, and what the entry carries from each side: name,
// port, adapter and target from the bus, the file from the driver.
TEST_F(ScsiBus, TheMakersScannerIsClaimedByItsScsiDriver) {
  InstallBus("[Adapter0]\nIdentifier=SIMBUS0\n[Adapter0 Target3]\n" + Qm7110());
  InstallDriver("QM7110", "QM7110", 3);
  const auto list = List();
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(Fields(list[0]), ScsiName(3, "QM7110") + "|vscan.dll|" +
                                 NativePath(root_.Twain().string() + "/Corvane/QM7110/") +
                                 "|1,0,1,0|CORVANE |SCSI-SIMBUS0");
  EXPECT_TRUE(list[0].HostAdapter == 0 && list[0].DeviceNumber == 3);

  // Chosen and loaded, the claimed scanner scans like any other source.
  Library lib;
  SxDataSource chosen = Enumerate(lib)[0];
  ASSERT_EQ(lib.SetDriverById(&chosen, 0), 0);
  EXPECT_EQ(lib.Load(nullptr), 0);
  lib.Free();
}

TEST_F(ScsiBus, OnlyScannersThatAnswerAndAreOursOrSpeakOurCommandsAreListed) {
  InstallBus("[Adapter0]\nIdentifier=A0\n"
             "[Adapter0 Target0]\n" + Qm7110() +                          // no driver claims it
             "[Adapter0 Target1]\nVendor=OTHERCO\nProduct=Foreign\nRevision=1.00\nByte39=1\n"
             "[Adapter0 Target2]\nVendor=OTHERCO\nProduct=Plain\nRevision=1.00\n"
             "[Adapter0 Target4]\nType=0\n" + Qm7110() +                  // a disk
             "[Adapter0 Target5]\n" + Qm7110("Status=4\n") +              // completes with an error
             "[Adapter0 Target6]\nVendor=corvane\nProduct=Lower\nRevision=1.00\n"  // case counts
             "[Adapter1]\nIdentifier=BROKEN\nStatus=4\n[Adapter1 Target3]\n" + Qm7110() +
             "[Adapter2]\nIdentifier=SECOND\n[Adapter2 Target3]\n" + Qm7110());
  for (const auto& [model, target] : {std::pair{"Foreign", 1}, {"Plain", 2}, {"Disk", 4}, {"Err", 5}, {"Lower", 6}})
    InstallDriver(model, model, target);
  InstallDriver("QM7110", "QM7110", 3);
  // Scanners nobody accepted are the drivers' own entries, on their port.
  EXPECT_EQ(Listed(), (Strings{ScsiName(1, "Foreign") + "|SCSI-A0|0", ScsiName(2, "Plain") + "|SCSI|0",
                               ScsiName(3, "QM7110") + "|SCSI-SECOND|2", ScsiName(4, "Disk") + "|SCSI|0",
                               ScsiName(5, "Err") + "|SCSI|0", ScsiName(6, "Lower") + "|SCSI|0"}));
}

// A silent target is waited for the whole 6000 ms and given up; one that
// answers after 300 ms is heard; list building waits for nothing else.
TEST_F(ScsiBus, PendingTargetsAreWaitedForUpToTheLimit) {
  InstallBus("[Adapter0]\nIdentifier=SLOW\n"
             "[Adapter0 Target0]\nSilent=1\n" + Qm7110() +
             "[Adapter0 Target2]\nDelayMs=300\n" + Qm7110());
  for (int target : {0, 2}) InstallDriver("T" + std::to_string(target), "QM7110", target);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Listed(), (Strings{ScsiName(0, "QM7110") + "|SCSI|0", ScsiName(2, "QM7110") + "|SCSI-SLOW|0"}));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(6000)) << "the silent target waited out";
  EXPECT_LT(took, std::chrono::seconds(9));
}

// No module, a module without the entry points, an empty bus: the list holds
// the drivers alone, and a SCSI driver keeps its own entry.
TEST_F(ScsiBus, WithoutAUsableAspiModuleOnlyDriversAreListed) {
  InstallDriver("QM7110", "QM7110", 3);
  const Strings own = {ScsiName(3, "QM7110") + "|SCSI|0"};
  EXPECT_EQ(Listed(), own) << "no module";
  const fs::path system = root_.System();
  fs::create_directories(system);
  fs::copy_file(SX_TEST_VSCAN, system / "wnaspi32.dll");
  EXPECT_EQ(Listed(), own) << "no entry points";
  InstallBus("");
  EXPECT_EQ(Listed(), own) << "no adapters";
  // A bus the unclaimed scanner is on: present in the list, never reported.
  fs::remove_all(root_.Twain());
  InstallBus("[Adapter0]\nIdentifier=X\n[Adapter0 Target3]\n" + Qm7110());
  Library lib;
  SxDataSource ds{};
  EXPECT_EQ(lib.GetDS(SX_DS_FIRST, &ds), SX_ERR_NO_SOURCE);
}

TEST(AspiBusFile, DescribesAdaptersAndTargets) {
  using namespace sx::aspisim;
  const Bus bus = ParseBus(
      "[adapter2 target7]\nInquiry=06 00,02 zz 0 2 41\nStatus=999\nDelayMs=-5\n"
      "[Adapter2]\nIdentifier=ABCDEFGHIJKLMNOPQRS\n"
      "[Adapter1 Target8]\nVendor=X\n[Adapter 1]\n[Adapter300]\n[Adapter0 Target1 x]\n"
      "[Adapter0 Target1]\nVendor=ABCDEFGHIJ\nProduct=P\nByte39=3\nSilent=1\n");
  ASSERT_EQ(bus.Adapters.size(), 3u);
  EXPECT_FALSE(bus.Adapters[1].Present) << "target 8 and 'Adapter 1' are no names of the bus";
  const Adapter& a2 = bus.Adapters[2];
  EXPECT_TRUE(a2.Present);
  EXPECT_EQ(a2.Identifier, "ABCDEFGHIJKLMNOP");
  const Target& t7 = a2.Targets[7];
  EXPECT_EQ(t7.InquiryLength, 4u) << "pairs of hex digits only";
  EXPECT_EQ(std::vector<uint8_t>(t7.Inquiry.begin(), t7.Inquiry.begin() + 4), (std::vector<uint8_t>{6, 0, 2, 0x41}));
  EXPECT_EQ(t7.Status, 255) << "clamped to the byte";
  EXPECT_EQ(t7.DelayMs, 0u);
  const Target& t1 = bus.Adapters[0].Targets[1];
  EXPECT_FALSE(bus.Adapters[0].Present);
  EXPECT_TRUE(t1.Present && t1.Silent);
  EXPECT_EQ(std::string(t1.Inquiry.begin() + 8, t1.Inquiry.begin() + 36),
            "ABCDEFGH" + std::string("P") + std::string(15, ' ') + std::string(4, ' '))
      << "vendor, product and revision cut or padded with blanks";
  EXPECT_EQ(t1.Inquiry[0], 6);
  EXPECT_EQ(t1.Inquiry[39], 3);
}

}  // namespace
}  // namespace sxtest
