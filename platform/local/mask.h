// Masking of secrets in log messages.
#pragma once

#include <string>
#include <string_view>

namespace local {

// The text with every secret value replaced by "***". A secret is what follows a name that ends in a known key (sid,
// cookie, passwd, token, ...; any case) and a separator (= : [), and the password in a URL. In doubt more is masked.
std::string MaskSecrets(std::string_view text);

}  // namespace local
