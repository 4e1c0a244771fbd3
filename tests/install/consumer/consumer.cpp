// Built only against the installed headers and library; uses each kind of public interface once.
#include <cstdio>
#include <string>

#include "hds/common/HDSArrayModels.h"
#include "hds/common/HDSRecords.h"
#include "hds/handler/CommandHandler.h"
#include "hds/helper/CommandHelper.h"

int main() {
  BasicSnapInfo snapInfo;
  CommandHelper helper(snapInfo);
  std::string output, error;
  int exitCode = -1;
  helper.RunCommandWithTimeout("echo installed; exit 2", output, exitCode, error, 10);
  VTHDSLock guard(snapInfo, "consumer", 1);

  // The environment points the CCI directory at nothing: initialisation fails cleanly.
  HDSCLIInitParam param;
  CommandHandler handler(snapInfo, param);
  int code = 0;
  std::string text;
  handler.getErrorCodeAndString(code, text);

  const bool ok = exitCode == 2 && output == "installed\n" && guard.isLocked() &&
                  getMaxLdevIdForArrayType("M850S2F") == 32767 &&
                  hdsCopyGroup_t().journalId == -1 && code == 62601 &&
                  text.rfind("Hitachi CCI CLI not found in ", 0) == 0;
  std::puts(ok ? "consumer: ok" : "consumer: unexpected results");
  return ok ? 0 : 1;
}
