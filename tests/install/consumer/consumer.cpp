// A program built only against the installed headers and library: it uses each kind of public
// interface once and checks the answers.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "hds/common/HDSArrayModels.h"
#include "hds/common/HDSConstants.h"
#include "hds/common/HDSRecords.h"
#include "hds/handler/CommandHandler.h"
#include "hds/helper/CommandHelper.h"
#include "hds/platform/SnapInfo.h"

#define CHECK(cond)                                                \
  do {                                                             \
    if (!(cond)) {                                                 \
      std::fprintf(stderr, "consumer: check failed: %s\n", #cond); \
      return 1;                                                    \
    }                                                              \
  } while (0)

int main() {
  BasicSnapInfo snapInfo;

  CommandHelper helper(snapInfo);
  std::string output, error;
  int exitCode = -1;
  CHECK(helper.RunCommandWithTimeout("echo installed; exit 2", output, exitCode, error, 10) == 0);
  CHECK(exitCode == 2 && output == "installed\n");

  {
    VTHDSLock guard(snapInfo, "consumer", 1);
    CHECK(guard.isLocked());
  }

  CHECK(getMaxLdevIdForArrayType("M850S2F") == 32767);
  hdsCopyGroup_t copyGroup;
  CHECK(copyGroup.journalId == -1);
  hdsLdev_t ldev;
  CHECK(ldev.capacity == 0);

  // The environment points the CCI directory at nothing: initialisation fails cleanly.
  HDSCLIInitParam param;
  param.serialNumber = "412345";
  CommandHandler handler(snapInfo, param);
  int code = 0;
  std::string text;
  handler.getErrorCodeAndString(code, text);
  CHECK(code == VT_HDS_ERROR_COMMAND_FAILED);
  CHECK(text.rfind("Hitachi CCI CLI not found in ", 0) == 0);

  std::puts("consumer: ok");
  return 0;
}
