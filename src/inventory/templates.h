// Constant documents the transactions start from; only their placeholders change.
#pragma once

namespace zel {

extern const char* const kCameraTemplate;
extern const char* const kTransactionTemplate;

}  // namespace zel
