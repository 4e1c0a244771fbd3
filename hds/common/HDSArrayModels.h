#pragma once

#include <string>

#include "hds/common/HDSConstants.h"
#include "hds/common/HDSExport.h"

struct HDSArrayTypes {
  const char* typeCode;   // as the array reports its type ("R9", "M850S2F", ...)
  const char* modelName;  // for messages
  int maxLdevId;
};

HDS_API extern const HDSArrayTypes HDSArrayMaxLdevTable[VT_HDS_MAX_LDEV_TABLE_SIZE];

// Highest LDEV id of the model with this exact (case-sensitive) type code; 65279 for a type the
// table does not know, so LDEV queries on a newer array still cover the common range.
HDS_API int getMaxLdevIdForArrayType(const std::string& typeCode);
