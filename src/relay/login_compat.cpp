#include "relay/login_compat.h"

#include "base/json.h"

namespace qev::relay {
namespace {

constexpr std::string_view kDefaultSuccessMessage = "操作成功";

const Json* member(const Json* object, std::string_view key) {
  if (!object || !object->is_object()) return nullptr;
  const auto it = object->find(key);
  return it == object->end() ? nullptr : &*it;
}

std::string nonEmptyString(const Json* value) {
  return (value && value->is_string()) ? value->get<std::string>() : std::string();
}

// Older panels send 0/1, newer ones false/true; some send the digit as text.
bool adminFlag(const Json* value) {
  if (!value) return false;
  if (value->is_boolean()) return value->get<bool>();
  if (value->is_number()) return value->get<double>() != 0;
  if (value->is_string()) {
    const auto text = value->get<std::string>();
    return text == "1" || text == "true";
  }
  return false;
}

}  // namespace

std::string xboardLoginCompatBody(std::string_view body) {
  Json reply = base::parseJson(body);
  if (reply.is_discarded() || !reply.is_object()) return std::string(body);
  const Json* data = member(&reply, "data");
  const std::string token = nonEmptyString(member(data, "token"));
  if (token.empty()) return std::string(body);

  std::string authData = nonEmptyString(member(data, "auth_data"));
  if (authData.empty()) authData = token;
  std::string message = nonEmptyString(member(&reply, "message"));
  if (message.empty()) message = nonEmptyString(member(&reply, "msg"));
  if (message.empty()) message = kDefaultSuccessMessage;
  const Json* adminValue = member(data, "is_admin");
  if (!adminValue) adminValue = member(&reply, "is_admin");
  const bool isAdmin = adminFlag(adminValue);

  Json payload = *data;
  payload["token"] = token;
  payload["auth_data"] = authData;
  reply["status"] = "success";
  reply["success"] = true;
  reply["ret"] = 1;
  reply["code"] = 0;
  reply["error_code"] = 0;
  reply["msg"] = message;
  reply["message"] = message;
  reply["is_admin"] = isAdmin;
  reply["data"] = std::move(payload);
  return reply.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace qev::relay
