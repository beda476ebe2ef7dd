// The users of a server: their passwords and what they may do.
//
// A file has a line for each: `name:hash` or `name:hash:rights`. The hash is one of crypt(3), as `openssl passwd -6` or
// `mkpasswd` print it. The rights are rw, r or w; without them rw. Empty lines and those that begin with # are ignored.
//
// These hashes are slow by design, so each password is hashed once. Afterwards it is known by its digest under a key of
// this process. The remaining hashing runs on the server's thread, and a budget limits it: guesses of passwords use at
// most a tenth of the time. While the budget is used up, passwords that are not known yet are not checked.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace metricdb {

struct Credentials {
  std::string name, password;
};

// Returns the credentials in the value of the header Authorization; none if they are missing or have another form.
std::optional<Credentials> basic_credentials(std::string_view header);

enum class Right { any, read, write };  // any: each user has it

// Seconds of hashing: how many are saved at most, and how many are added in a second.
struct PasswordBudget {
  double max_s = 0.25;
  double share = 0.1;
};

// Threads: one.
class Access {
 public:
  enum class Outcome {
    allowed,
    unknown,    // no credentials, or wrong ones
    forbidden,  // the user has no such right
    busy        // the budget is used up; the client should try again
  };

  // file  empty: no users. Others must not be able to read it. Throws ServerError.
  explicit Access(std::string file, const PasswordBudget &budget = {});

  // Reads the file again. Throws ServerError, and then the former users stay.
  void reload();

  bool has_users() const { return !users_.empty(); }
  // Without users everything is allowed.
  Outcome check(const std::optional<Credentials> &credentials, Right right);

 private:
  using Clock = std::chrono::steady_clock;
  using Digest = std::array<unsigned char, 32>;
  struct User {
    std::string hash;
    bool may_read, may_write;
    std::optional<Digest> verified = {};  // of the password
  };
  using Users = std::map<std::string, User, std::less<>>;
  static constexpr size_t N_WRONG = 64;

  static Users users_of(const std::string &file);
  static User user_of(std::string_view hash_and_rights);
  Outcome check_password(const Credentials &credentials, User *user);
  Digest digest_of(const Credentials &credentials) const;
  bool has_budget();
  bool is_password(const std::string &password, const std::string &hash);

  const std::string file_;
  const PasswordBudget budget_;
  Digest key_;
  Users users_;
  std::array<Digest, N_WRONG> wrong_ =
      {};  // names with wrong passwords, so that a client that repeats them costs nothing
  size_t n_wrong_ = 0;
  double seconds_left_;
  Clock::time_point refilled_ = Clock::now();
};

}  // namespace metricdb
