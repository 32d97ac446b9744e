// `kestrel-info status`: the words it accepts and what it prints for them.
#include <gtest/gtest.h>

#include <string>

#include "tool_run.h"

namespace {

using kestrel_test::ToolRun;

ToolRun runStatus(const std::string& args) {
  const std::string command = "'" KESTREL_INFO_BIN "' status " + args;
  return kestrel_test::runTool(command);
}

TEST(KestrelInfoStatus, DecodesWordsGivenInHexOrDecimalAndExplainsItself) {
  const struct {
    const char* args;
    const char* expected;  // a part of the output
  } rows[] = {
      {"0xC0000008", "printable  Error|APP|Error code I/O failed (0x    8)"},
      {"3221225480", "message    I/O failed"},
      {"0X40000081", "printable  Info|APP|Error code Action already queued (0x  129)"},
      {"0x0000000000C0000005", "message    No more memory"},
      {"010", "status 0xa (10)"},  // leading zeros are decimal, not octal
      {"0x80050003", "subsystem  5  Invalid"},
      {"0x80050003", "printable  Could not decode error 0x80050003"},
      {"4294967295", "code       65535  (0xffff)"},
      {"0xC0000008 0x40000080", "Action in progress"},
      {"--help", "status WORD..."},
  };
  for (const auto& row : rows) {
    const ToolRun run = runStatus(row.args);
    EXPECT_EQ(run.exitCode, 0) << row.args << "\n" << run.output;
    EXPECT_NE(run.output.find(row.expected), std::string::npos) << row.args << "\n" << run.output;
  }
}

TEST(KestrelInfoStatus, RefusesWhatIsNotAStatusWord) {
  for (const char* args : {"", "xyz", "0x", "0x1G", "-1", "+5", "4294967296", "0x100000000",
                           "12abc", "0xC0000008 oops", "' 5'"}) {
    const ToolRun run = runStatus(args);
    EXPECT_EQ(run.exitCode, 2) << args << "\n" << run.output;
    EXPECT_NE(run.output.find("kestrel-info status: "), std::string::npos) << args;
    EXPECT_EQ(run.output.find("printable"), std::string::npos) << args << ": nothing decoded";
  }
}

}  // namespace
