#pragma once

#include <memory>

#include "modstructure.hpp"

namespace zendar::test {

/// Stands for a compressed store whose content nobody looks at.
inline std::shared_ptr<::miraculix::compressed_store> some_store() {
    static char place = 0;
    return {std::shared_ptr<void>(), reinterpret_cast<::miraculix::compressed_store*>(&place)};
}

}  // namespace zendar::test
