#include "hds/common/HDSVersion.h"

const char* hdsLibraryVersion() { return HDS_VERSION_TEXT; }
