#pragma once

// The shared object is built with hidden visibility; only what carries HDS_API is part of the
// installed interface.
#define HDS_API __attribute__((visibility("default")))
