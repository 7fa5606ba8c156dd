// The server's requests, one static handler per subject. Handlers run on the worker
// thread inside inbound processing, with the work mutex held.
#pragma once

#include <cjson/cJSON.h>

#include <string>

#include "zel/msg_response.h"

namespace zel {

class Messaging;

class ZelHandler {
 public:
  // Picks the handler for `subject`; `message` is the whole parsed request (unused).
  static MsgResponse handleMessage(Messaging* messaging, std::string subject, std::string contents,
                                   cJSON* message);

  static MsgResponse pongHandler(Messaging* messaging);
  static MsgResponse versionHandler(const std::string& contents, Messaging* messaging);
  static MsgResponse actionsHandler(const std::string& contents, Messaging* messaging);
  static MsgResponse actionHandler(const std::string& contents, Messaging* messaging);
  static MsgResponse updateHandler(const std::string& contents, Messaging* messaging);
  static MsgResponse detailsHandler(Messaging* messaging);
  static MsgResponse statusHandler(Messaging* messaging);
  static MsgResponse storageAccessHandler(std::string contents, Messaging* messaging);
  static MsgResponse issueCertificateHandler(const std::string& contents, Messaging* messaging);
  static MsgResponse transactionHandler(std::string contents, Messaging* messaging);
  static MsgResponse transactionAckHandler(std::string contents, Messaging* messaging);
};

// The failure body of every handler whose contents are not JSON.
extern const char* const kCouldNotParseContents;

}  // namespace zel
