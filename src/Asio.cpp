#include "Asio.hpp"

#include <asio/impl/src.hpp>
