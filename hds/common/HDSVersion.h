#pragma once

#include "hds/common/HDSExport.h"

// The version of the library that is loaded, which can differ from the one a program was built
// against.
HDS_API const char* hdsLibraryVersion();
