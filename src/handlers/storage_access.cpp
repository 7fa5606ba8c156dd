// "getStorageAccess": the server's credentials for one clip upload.
#include "foundation/json_ptr.h"
#include "handlers/zel_handler.h"
#include "messaging/messaging.h"

namespace zel {

MsgResponse ZelHandler::storageAccessHandler(std::string contents, Messaging* messaging) {
  JsonPtr root(cJSON_Parse(contents.c_str()));
  if (!root) return MsgResponse::Error(kCouldNotParseContents);
  CloudCredentials credentials;
  credentials.token = string_member(root.get(), "token");
  credentials.account = string_member(root.get(), "account");
  credentials.secret = string_member(root.get(), "secret");
  credentials.start_at = string_member(root.get(), "start_at");
  credentials.camera_mac = string_member(root.get(), "camera_mac");
  messaging->set_credentials(credentials);
  return MsgResponse::Okay();
}

}  // namespace zel
