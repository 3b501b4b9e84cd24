// The io_context behind the loop; for src/net only.
#pragma once

#include <asio.hpp>

namespace qel {

asio::io_context& IoContext();

}  // namespace qel
