// `kestrel-info env`: runs the first-run checks against the user's store and
// lists the resource folders of the current locale in search order.
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <string>

#include "tool_run.h"

namespace {

using kestrel_test::ToolRun;

// Runs `kestrel-info <words>` with its configuration folders in home and a
// fixed locale.
ToolRun runInfo(const QTemporaryDir& home, const std::string& words) {
  const std::string dir = home.path().toStdString();
  const std::string command = "env HOME='" + dir + "' XDG_CONFIG_HOME='" + dir +
                              "/config' LANGUAGE=fr_CA:fr LC_ALL= LC_MESSAGES= "
                              "LANG=de_DE.UTF-8 '" KESTREL_INFO_BIN "' " +
                              words;
  return kestrel_test::runTool(command);
}

bool appearInOrder(const std::string& text, std::initializer_list<const char*> parts) {
  std::size_t at = 0;
  for (const char* part : parts) {
    at = text.find(part, at);
    if (at == std::string::npos) return false;
    at += std::char_traits<char>::length(part);
  }
  return true;
}

TEST(KestrelInfoEnv, FirstRunIsRecordedAndSecondRunSeesIt) {
  QTemporaryDir home;
  ASSERT_TRUE(home.isValid());
  const ToolRun first = runInfo(home, "env");
  ASSERT_EQ(first.exitCode, 0) << first.output;
  EXPECT_TRUE(appearInOrder(
      first.output, {"display name", "Orvane Kestrel Extra", "crash product name",
                     "Orvane Kestrel Linux", "new version", "yes", "last version", "(none)"}))
      << first.output;
  EXPECT_TRUE(appearInOrder(first.output, {"preferred", "fr_CA, fr, de_DE"})) << first.output;
  // The default current locale en_US and its parent, then the base folder.
  EXPECT_TRUE(appearInOrder(first.output, {"current locale chain", "en-US > en", "/en-US.lproj\n",
                                           "/en_US.lproj\n", "/en.lproj\n", "Resources/\n"}))
      << first.output;
  EXPECT_TRUE(QFile::exists(home.path() + "/config/Orvane/OrvaneKestrelExtra.conf"));

  const ToolRun second = runInfo(home, "env");
  ASSERT_EQ(second.exitCode, 0) << second.output;
  EXPECT_TRUE(appearInOrder(second.output, {"new version", "no", "last version", "4.1.7076.4458"}))
      << second.output;
}

TEST(KestrelInfoEnv, HelpWarnsAboutWritesAndUnknownOptionIsUsageError) {
  QTemporaryDir home;
  ASSERT_TRUE(home.isValid());
  const ToolRun help = runInfo(home, "env --help");
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_NE(help.output.find("record this version"), std::string::npos) << help.output;
  const ToolRun bad = runInfo(home, "env --bogus");
  EXPECT_EQ(bad.exitCode, 2);
  EXPECT_NE(bad.output.find("unknown option"), std::string::npos) << bad.output;
  EXPECT_FALSE(QFile::exists(home.path() + "/config/Orvane/OrvaneKestrelExtra.conf"));
}

TEST(KestrelInfoEnv, TheTourLeavesTheUsersSettingsAlone) {
  QTemporaryDir home;
  ASSERT_TRUE(home.isValid());
  const ToolRun tour = runInfo(home, "tour");
  ASSERT_EQ(tour.exitCode, 0) << tour.output;
  EXPECT_TRUE(appearInOrder(tour.output, {"== env", "new version", "yes"})) << tour.output;
  EXPECT_FALSE(QFile::exists(home.path() + "/config/Orvane")) << tour.output;
}

}  // namespace
