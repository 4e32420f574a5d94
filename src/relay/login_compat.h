#pragma once

#include <string>
#include <string_view>

namespace qev::relay {

// The panel's login reply in one shape whatever panel generation sent it. A JSON object whose
// `data.token` is a non-empty string comes back as a success envelope: `status` "success",
// `success` true, `ret` 1, `code` 0, `error_code` 0, `msg` and `message` (the panel's text, else
// "操作成功"), a boolean `is_admin`, and `data` with `token` and `auth_data` (the panel's
// credential verbatim, else the token); other members survive. Any other body, JSON or not,
// failed logins included, is returned unchanged.
std::string xboardLoginCompatBody(std::string_view body);

}  // namespace qev::relay
