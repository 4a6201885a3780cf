// SHA-256 of what comes piece by piece.
#pragma once

#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace corvid::fleet {

// Not synchronised.
class Digest {
 public:
  // Throws std::bad_alloc where there is no memory for it.
  Digest();

  void add(std::string_view bytes);
  // Of everything that was added, 64 lower-case hexadecimal digits. Once.
  std::string hexadecimal();

 private:
  struct Free {
    void operator()(evp_md_ctx_st* context) const;
  };
  std::unique_ptr<evp_md_ctx_st, Free> _context;
};

}  // namespace corvid::fleet
