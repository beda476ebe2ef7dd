#include "net/access.h"

#include <crypt.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "codec/line_protocol.h"
#include "net/descriptor.h"
#include "net/server.h"

namespace metricdb {
namespace {

constexpr std::string_view SCHEME = "basic ";

std::string text_of_private_file(const std::string &path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status;
  if (file.get() < 0 || fstat(file.get(), &status) != 0)
    throw ServerError(fmt::format("{}: {}", path, std::strerror(errno)));
  if (!S_ISREG(status.st_mode)) throw ServerError(fmt::format("{}: not a regular file", path));
  if ((status.st_mode & S_IRWXO) != 0)
    throw ServerError(fmt::format("{}: other users of this machine can access it; chmod o= helps", path));
  std::string text(static_cast<size_t>(status.st_size), '\0');
  const ssize_t got = read(file.get(), text.data(), text.size());
  if (got < 0) throw ServerError(fmt::format("{}: {}", path, std::strerror(errno)));
  text.resize(static_cast<size_t>(got));
  return text;
}

// Returns the text before the colon, and removes both.
std::string_view next_part(std::string_view &text) {
  const std::string_view part = text.substr(0, text.find(':'));
  text.remove_prefix(std::min(part.size() + 1, text.size()));
  return part;
}

}  // namespace

std::optional<Credentials> basic_credentials(std::string_view header) {
  if (header.size() < SCHEME.size() || strncasecmp(header.data(), SCHEME.data(), SCHEME.size()) != 0)
    return std::nullopt;
  header.remove_prefix(SCHEME.size());
  std::string text(header.size(), '\0');  // longer than what is decoded
  const int n =
      EVP_DecodeBlock(reinterpret_cast<unsigned char *>(text.data()),
                      reinterpret_cast<const unsigned char *>(header.data()), static_cast<int>(header.size()));
  const size_t colon = text.find(':');
  if (n < 0 || colon == text.npos) return std::nullopt;
  text.resize(static_cast<size_t>(n) - std::min<size_t>(header.size() - header.find_last_not_of('=') - 1, 2));
  return Credentials{text.substr(0, colon), text.substr(colon + 1)};
}

Access::Access(std::string file, const PasswordBudget &budget)
    : file_(std::move(file)), budget_(budget), seconds_left_(budget.max_s) {
  if (RAND_bytes(key_.data(), static_cast<int>(key_.size())) != 1) throw ServerError("no random numbers");
  reload();
}

void Access::reload() {
  if (file_.empty()) return;
  Users users = users_of(file_);
  for (auto &[name, user] : users)
    if (const auto former = users_.find(name); former != users_.end() && former->second.hash == user.hash)
      user.verified = former->second.verified;
  users_ = std::move(users);
  wrong_ = {};
}

Access::Users Access::users_of(const std::string &file) {
  const std::string text = text_of_private_file(file);
  Users users;
  std::string_view rest = text;
  int number = 0;
  for (std::string_view line; next_line(rest, line);) {
    ++number;
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.empty() || line.starts_with('#')) continue;
    const std::string name(next_part(line));
    try {
      if (name.empty()) throw ServerError("a line is name:hash or name:hash:rights");
      if (!users.emplace(name, user_of(line)).second) throw ServerError(fmt::format("user \"{}\" a second time", name));
    } catch (const ServerError &error) {
      throw ServerError(fmt::format("{}:{}: {}", file, number, error.what()));
    }
  }
  if (users.empty()) throw ServerError(file + ": no user");
  return users;
}

Access::User Access::user_of(std::string_view hash_and_rights) {
  const std::string hash(next_part(hash_and_rights));
  const std::string_view rights = hash_and_rights;
  // An unknown hash could be a password. crypt would take it for an old kind of hash, which is found by guessing.
  if (crypt_checksalt(hash.c_str()) != CRYPT_SALT_OK)
    throw ServerError("the hash is not one that crypt(3) recommends; `openssl passwd -6` prints one");
  if (!rights.empty() && rights != "rw" && rights != "r" && rights != "w")
    throw ServerError("the rights are not rw, r or w");
  return {hash, rights != "w", rights != "r"};
}

Access::Outcome Access::check(const std::optional<Credentials> &credentials, Right right) {
  if (!has_users()) return Outcome::allowed;
  if (!credentials) return Outcome::unknown;
  const auto found = users_.find(credentials->name);
  User *const user = found == users_.end() ? nullptr : &found->second;
  const Outcome outcome = check_password(*credentials, user);
  if (outcome != Outcome::allowed) return outcome;
  const bool has_right = right == Right::any || (right == Right::read ? user->may_read : user->may_write);
  return has_right ? Outcome::allowed : Outcome::forbidden;
}

// user  null for a name that nobody has. Its check takes as long, so that nobody learns the names.
Access::Outcome Access::check_password(const Credentials &credentials, User *user) {
  const Digest digest = digest_of(credentials);
  const auto is_digest = [&](const Digest &other) {
    return CRYPTO_memcmp(digest.data(), other.data(), digest.size()) == 0;
  };
  if (user != nullptr && user->verified && is_digest(*user->verified)) return Outcome::allowed;
  if (std::any_of(wrong_.begin(), wrong_.end(), is_digest)) return Outcome::unknown;
  if (!has_budget()) return Outcome::busy;
  const bool is_right = is_password(credentials.password, (user != nullptr ? *user : users_.begin()->second).hash);
  if (is_right && user != nullptr) {
    user->verified = digest;
    return Outcome::allowed;
  }
  wrong_[n_wrong_++ % N_WRONG] = digest;
  return Outcome::unknown;
}

Access::Digest Access::digest_of(const Credentials &credentials) const {
  const std::string text = credentials.name + '\0' + credentials.password;
  Digest digest;
  HMAC(EVP_sha256(), key_.data(), static_cast<int>(key_.size()), reinterpret_cast<const unsigned char *>(text.data()),
       text.size(), digest.data(), nullptr);
  return digest;
}

bool Access::has_budget() {
  const Clock::time_point now = Clock::now();
  const double passed_s = std::chrono::duration<double>(now - std::exchange(refilled_, now)).count();
  seconds_left_ = std::min(budget_.max_s, seconds_left_ + budget_.share * passed_s);
  return seconds_left_ > 0;
}

bool Access::is_password(const std::string &password, const std::string &hash) {
  const Clock::time_point begin = Clock::now();
  const auto data = std::make_unique<crypt_data>();
  const char *const hashed = crypt_r(password.c_str(), hash.c_str(), data.get());
  // crypt ends at a zero byte.
  const bool is_right = hashed != nullptr && password.find('\0') == password.npos &&
                        hash.size() == std::strlen(hashed) && CRYPTO_memcmp(hashed, hash.data(), hash.size()) == 0;
  seconds_left_ -= std::chrono::duration<double>(Clock::now() - begin).count();
  return is_right;
}

}  // namespace metricdb
