#pragma once

#include "hds/common/HDSExport.h"

class HDS_API VTPassword {
 public:
  // in: encrypted text; out: buffer of *size bytes. Non-zero on success. Without an installed
  // hook the text is returned as given.
  static int decrypt(const char* in, char* out, int* size);

  using DecryptHook = int (*)(const char* in, char* out, int* size);
  // The embedding product installs its decryption here; nullptr restores the default.
  static void setDecryptHook(DecryptHook hook);
};
