#include "ZulCore/Trust/SecretStore.h"

namespace zul {

SecretStoreError SecretStoreError::unavailable(std::string reason) {
  auto text = formatErrorCase("unavailable", {field("reason", reason)});
  return {Case::unavailable, std::move(text), {}, std::move(reason)};
}

SecretStoreError SecretStoreError::readFailed(std::string account, std::string reason) {
  auto text = formatErrorCase("readFailed", {field("account", account), field("reason", reason)});
  return {Case::readFailed, std::move(text), std::move(account), std::move(reason)};
}

SecretStoreError SecretStoreError::writeFailed(std::string account, std::string reason) {
  auto text = formatErrorCase("writeFailed", {field("account", account), field("reason", reason)});
  return {Case::writeFailed, std::move(text), std::move(account), std::move(reason)};
}

}  // namespace zul
