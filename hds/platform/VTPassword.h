#pragma once

#include "hds/common/HDSExport.h"

// Turns the password the product stores into the one the array takes. Thread safety: both
// functions may be called from any thread; a hook must be as safe.
class HDS_API VTPassword {
 public:
  // in: encrypted text; out: buffer of *size bytes. Non-zero on success. Without an installed
  // hook the text is returned as given (0 when it does not fit, *size then the length).
  static int decrypt(const char* in, char* out, int* size);

  using DecryptHook = int (*)(const char* in, char* out, int* size);
  // The embedding product installs its decryption here; nullptr restores the default. Install it
  // before handlers run: one already decrypting keeps the hook it read.
  static void setDecryptHook(DecryptHook hook);
};
