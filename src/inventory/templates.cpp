#include "inventory/templates.h"

namespace zel {

// The "1234ABCDEF" values are replaced by the recorder and camera MACs; every other
// value, the fixed dates and camera credentials included, is sent as it stands.
const char* const kCameraTemplate = R"(
{
  "apiVersion": "2",
  "method": "changed",
  "topic": "transaction",
  "nvrMac": "1234ABCDEF",
  "model": "camera",
  "properties": {
    "created_at": "2018-03-01T12:00:00.000Z",
    "deleted_at": null,
    "ip_address": "0.0.0.0",
    "is_fragmented_mp4": false,
    "is_hls": false,
    "is_live_h264": false,
    "is_ptz": false,
    "is_zoom": false,
    "mac_address": "1234ABCDEF",
    "model": "Lumatrix-Camera",
    "name": "ZelCloudLibCamera",
    "password": "24680",
    "transcode_audio": true,
    "transcode_video": false,
    "updated_at": "2018-03-01T12:00:00.000Z",
    "username": "admin"
  },
  "subject": "transaction"
})";

const char* const kTransactionTemplate = R"(
{
  "topic": "transaction",
  "nvrMac": "1234ABCDEF",
  "model": "modelName",
  "method": "changed",
  "apiVersion": "2"
})";

}  // namespace zel
