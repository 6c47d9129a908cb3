// sxscan doctor against system trees with known faults: each fault named with
// its fix, and a sound tree reported as such.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include "RunSxscan.h"
#include "platform/Paths.h"
#include "platform/Profile.h"

namespace {

namespace fs = std::filesystem;
using Report = sxtest::Outcome;

// `environment` goes before the program, to run the doctor under another
// root. It runs in the tree's folder.
Report Doctor(const sxtest::TempRoot& root, const std::string& environment = "") {
  return sxtest::RunSxscan(root, "doctor", environment);
}

TEST(HostDoctor, NamesEachFaultWithItsFixAndPassesASoundTree) {
  sxtest::TempRoot root;
  root.InstallVscan("Corvane/QM7110", "[Scanner]\nModel=QM7110V\n");
  Report sound = Doctor(root);
  EXPECT_EQ(sound.exitCode, 0) << sound.text;
  EXPECT_EQ(sound.Unsaid({"from the environment variable SX_ROOT",
                          "Corvane/QM7110/vscan.dll: offered as \"USB - QM7110V", "no problem found",
                          "wnaspi32.dll: absent (SCSI scanners are not looked for)"}),
            "")
      << sound.text;

  // A module without a version record, one refused at initialisation (no
  // model), another maker's, and a damaged registry store.
  root.InstallVscan("Corvane/Empty", "", "", "empty.dll");
  root.InstallVscan("Corvane/NoModel", "[Scanner]\nModel=Test Sample\n");
  root.InstallVscan("Other/Scanner", "[Scanner]\nModel=QM9\n",
                    sxtest::DefaultVersionText("1, 0, 0, 0", "Other Devices Ltd."), "other.dll");
  root.WriteRegistry("[Software\\Quillmark]\n\"DEBUGLEVEL\"=dword:00000002\n\"SOURCENAME\"=str(2):\"US");
  // A module in ASPI's place that is no ASPI module.
  fs::create_directories(root.Path() / "windows/system32");
  fs::copy_file(SX_TEST_VSCAN, root.Path() / "windows/system32/wnaspi32.dll");
  Report faults = Doctor(root);
  EXPECT_EQ(faults.exitCode, 1);
  // Without "SAVEPATH" the log lands in the host program's current folder,
  // the tree's.
  EXPECT_EQ(faults.Unsaid({"Corvane/Empty/empty.dll: not offered\n  problem: it carries no version record",
                           "Corvane/NoModel/vscan.dll: version 1,0,1,0, not offered: refused\n  problem: the "
                           "library loaded it",
                           "Other/Scanner/other.dll: not offered (maker \"Other Devices Ltd.\")", "1 damaged line(s)",
                           "problem: it lacks GetASPI32SupportInfo or SendASPI32Command",
                           "trace level 2, log " + (root.Path() / "scandiag.txt").string(), "5 problem(s) found"}),
            "")
      << faults.text;
}

TEST(HostDoctor, ExplainsTheTraceLogTheRootAndUnofferedCopies) {
  sxtest::TempRoot root;
  root.InstallVscan("Corvane/QM7110", "[Scanner]\nModel=QM7110V\n");
  const std::string folder = root.Path().string();

  // A "SAVEPATH" without its final '/' glues the file name to the folder's.
  root.WriteRegistry("[Software\\Quillmark]\n\"DEBUGLEVEL\"=dword:00000001\n\"SAVEPATH\"=str(2):\"" +
                     folder + "/logs\"\n");
  Report glued = Doctor(root);
  EXPECT_EQ(glued.exitCode, 1);
  EXPECT_EQ(glued.Unsaid({"trace level 1, log " + folder + "/logsscandiag.txt\n", "fix:     end \"SAVEPATH\" with '/'",
                          "1 problem(s) found"}),
            "")
      << glued.text;

  // A folder that does not exist loses every line; so does an over-long path.
  root.WriteRegistry("[Software\\Quillmark]\n\"DEBUGLEVEL\"=dword:00000002\n\"SAVEPATH\"=str(2):\"" +
                     folder + "/missing/\"\n");
  Report missing = Doctor(root);
  EXPECT_TRUE(missing.Says("fix:     mkdir -p " + folder + "/missing\n")) << missing.text;
  root.WriteRegistry("[Software\\Quillmark]\n\"DEBUGLEVEL\"=dword:00000002\n\"SAVEPATH\"=str(2):\"" +
                     folder + "/" + std::string(150, 'x') + "/\"\n");
  EXPECT_TRUE(Doctor(root).Says("longer than 143 characters")) << Doctor(root).text;

  // An older copy of the offered scanner, and a second module in the offered
  // module's folder, which discovery never tries.
  root.InstallVscan("Corvane/Old", "[Scanner]\nModel=QM7110V\n", sxtest::DefaultVersionText("1, 0, 0, 5"));
  root.InstallVscan("Corvane/QM7110", "[Scanner]\nModel=QM7110V\n", sxtest::DefaultVersionText(), "b.dll");
  root.WriteRegistry("");
  // Which of the two in one folder is accepted depends on the folder's order.
  Report copies = Doctor(root);
  EXPECT_EQ(copies.Unsaid({"Corvane/Old/vscan.dll: version 1,0,0,5, not offered: the same scanner \"USB - QM7110V",
                           "is offered from Corvane/QM7110/",
                           ".dll: version 1,0,1,0, not offered: not tried\n  problem: the library takes one module "
                           "per folder",
                           "2 problem(s) found"}),
            "")
      << copies.text;

  // Without SX_ROOT a relative XDG_DATA_HOME is ignored, as the library does.
  Report home = Doctor(root, "env -u SX_ROOT XDG_DATA_HOME=relative HOME='" + folder + "/'");
  EXPECT_TRUE(home.Says("system tree  " + folder + "/.local/share/sxscan (SX_ROOT is not set and "
                        "XDG_DATA_HOME is relative"))
      << home.text;
}

// The tree in the user database's home folder, which the library makes when
// it first writes its store: put back as it was found.
class HomeTreeGuard {
 public:
  explicit HomeTreeGuard(const fs::path& tree) : store_(tree / "user.reg") {
    created_ = tree;
    for (fs::path p = tree; !fs::exists(p) && p.has_relative_path(); p = p.parent_path()) created_ = p;
    if (fs::exists(tree)) created_.clear();
    if ((hadStore_ = fs::exists(store_))) content_ = sxtest::ReadFile(store_);
  }
  ~HomeTreeGuard() {
    std::error_code ec;
    if (!created_.empty()) fs::remove_all(created_, ec);
    else if (hadStore_) sxtest::WriteFile(store_, content_);
    else fs::remove(store_, ec);
  }

 private:
  fs::path store_, created_;
  bool hadStore_ = false;
  std::string content_;
};

// Without HOME the library asks the user database for the home folder; the
// doctor must report that very store, not one in the current folder.
TEST(HostDoctor, FindsTheLibrarysStoreWithoutHome) {
  std::string store;
  {
    sxtest::ScopedEnv noRoot("SX_ROOT", nullptr), noHome("HOME", nullptr), noData("XDG_DATA_HOME", nullptr);
    store = sx::plat::RegistryStorePath();
  }
  ASSERT_EQ(store.rfind("./", 0), std::string::npos) << store;
  HomeTreeGuard guard(fs::path(store).parent_path());
  sxtest::TempRoot root;
  const Report report = Doctor(root, "cd '" + root.Path().string() + "' && env -u SX_ROOT -u HOME -u XDG_DATA_HOME");
  EXPECT_TRUE(report.Says("registry     " + store + "\n")) << report.text;
}

#ifdef SX_TEST_CMMS
// Colour matching as the library would find it (the module, its entry points,
// the profiles cmatch.ini names) and module files that cannot be modules.
TEST(HostDoctor, ChecksColourMatchingAndNamesDamagedModules) {
  sxtest::TempRoot root;
  const fs::path driver = root.InstallVscan("Corvane/QM7110", "[Scanner]\nModel=QM7110V\n");
  const fs::path system = root.Path() / "windows/system32";
  const fs::path color = system / "SPOOL/DRIVERS/COLOR";
  fs::create_directories(color);
  fs::copy_file(SX_TEST_CMMS, system / "sxcmms.dll");
  sxtest::WriteFile(driver.parent_path() / "cmatch.ini", "[Model]\nQM7110V=vscan.icc\nQM7110X=gone.icc\n");
  std::string icc(200, '\0');  // a profile's header: its size, then "acsp" at 36
  icc[3] = static_cast<char>(200);
  icc.replace(36, 4, "acsp");
  sxtest::WriteFile(color / "vscan.icc", icc);
  Report colour = Doctor(root);
  EXPECT_EQ(colour.Unsaid({"sxcmms.dll\n  loads, with its 5 entry points",
                           "QM7110V uses vscan.icc: a valid ICC profile",
                           "QM7110X uses gone.icc: missing\n  problem: the profile gone.icc is not in",
                           "1 problem(s) found"}),
            "")
      << colour.text;

  // A profile that is text, a colour module without its entry points, a
  // driver cut short and a text file under a driver's name.
  sxtest::WriteFile(driver.parent_path() / "cmatch.ini", "[Model]\nQM7110V=vscan.icc\n");
  sxtest::WriteFile(color / "vscan.icc", "not a profile");
  fs::copy_file(SX_TEST_VSCAN, system / "sxcmms.dll", fs::copy_options::overwrite_existing);
  const std::string whole = sxtest::ReadFile(SX_TEST_VSCAN);
  fs::create_directories(root.Twain() / "Corvane/Cut");
  sxtest::WriteFile(root.Twain() / "Corvane/Cut/vscan.dll", whole.substr(0, whole.size() / 2));
  fs::create_directories(root.Twain() / "Corvane/Text");
  sxtest::WriteFile(root.Twain() / "Corvane/Text/vscan.dll", "#!/bin/sh\n");
  Report faults = Doctor(root);
  EXPECT_EQ(faults.Unsaid({"vscan.icc is not a valid ICC profile: only 13 bytes",
                           "problem: it lacks SX_Icc_SetProfile, SX_Icc_Convert2, SX_Icc_Initial",
                           "Corvane/Cut/vscan.dll: not offered\n  problem: it is truncated: ",
                           "Corvane/Text/vscan.dll: not offered\n  problem: it is not a shared object at all",
                           "4 problem(s) found"}),
            "")
      << faults.text;
  // The profile names as the library reads them: quotes dropped, a ';' line
  // a comment, and only the first [Model] section counts.
  const fs::path cmatch = driver.parent_path() / "cmatch.ini";
  sxtest::WriteFile(cmatch, "[Model]\n; QM7110Y=gone.icc\nQM7110V=\"vscan.icc\"\n[Model]\nQM7110X=gone.icc\n");
  sxtest::WriteFile(color / "vscan.icc", icc);
  char library[64] = "";
  sx::plat::ProfileGetString("Model", "QM7110V", "", library, sizeof library, cmatch.string());
  EXPECT_STREQ(library, "vscan.icc");
  const Report agreed = Doctor(root);
  EXPECT_TRUE(agreed.Says("QM7110V uses vscan.icc: a valid ICC profile")) << agreed.text;
  EXPECT_FALSE(agreed.Says("gone.icc")) << agreed.text;

  // The colour module itself cut short.
  sxtest::WriteFile(system / "sxcmms.dll", whole.substr(0, 100));
  EXPECT_TRUE(Doctor(root).Says("sxcmms.dll\n  problem: it is truncated")) << Doctor(root).text;
}
#endif

}  // namespace
#endif
