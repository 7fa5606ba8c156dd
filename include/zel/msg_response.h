// The answer of a request handler or of a host callback: a success flag and a JSON
// text sent back as the reply's "details". Empty content means no reply is sent.
#pragma once

#include <string>

#include "zel/export.h"

namespace zel {

class ZEL_EXPORT MsgResponse {
 public:
  MsgResponse() = default;
  MsgResponse(const char* s) : content(s ? s : "") {}       // NOLINT: implicit on purpose
  MsgResponse(const std::string& s) : content(s) {}         // NOLINT: implicit on purpose

  static MsgResponse Error(const std::string& s);
  static MsgResponse Okay();           // the JSON string "OK"
  static MsgResponse EmptyResponse();  // no reply at all
  static MsgResponse NotImpl();        // {"error": "Not implemented"}

  bool ok = true;
  std::string content;
};

}  // namespace zel
