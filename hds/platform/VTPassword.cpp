#include "hds/platform/VTPassword.h"

#include <atomic>
#include <cstring>

namespace {
std::atomic<VTPassword::DecryptHook> g_pDecryptHook{nullptr};
}

int VTPassword::decrypt(const char* in, char* out, int* size) {
  if (in == nullptr || out == nullptr || size == nullptr || *size <= 0) return 0;
  DecryptHook hook = g_pDecryptHook.load();
  if (hook != nullptr) return hook(in, out, size);
  size_t len = strlen(in);
  if (len >= static_cast<size_t>(*size)) return 0;
  memcpy(out, in, len + 1);
  *size = static_cast<int>(len);
  return 1;
}

void VTPassword::setDecryptHook(DecryptHook hook) { g_pDecryptHook.store(hook); }
