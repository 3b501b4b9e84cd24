#include <qel/error.h>

namespace qel {

QelError::QelError(int32_t number, std::string source, std::string description)
    : Number(number), Source(std::move(source)), Description(std::move(description)) {}

const char* QelError::what() const noexcept {
  return Description.c_str();
}

}  // namespace qel
