#include "zel/msg_response.h"

namespace zel {

MsgResponse MsgResponse::Error(const std::string& s) {
  MsgResponse r(s);
  r.ok = false;
  return r;
}

MsgResponse MsgResponse::Okay() { return MsgResponse("\"OK\""); }

MsgResponse MsgResponse::EmptyResponse() { return MsgResponse(); }

MsgResponse MsgResponse::NotImpl() { return Error("{\"error\": \"Not implemented\"}"); }

}  // namespace zel
