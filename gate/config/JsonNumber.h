#pragma once
// A number field of the configuration as its C++ type. The JSON library
// would also read true and false as numbers, and convert a float of any size,
// which is undefined behaviour when the value does not fit; both end here
// like any other wrongly typed value. Conversions that are defined keep their
// result: integers wrap, fractions are truncated.
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <type_traits>

namespace vostrelka {

template <typename T>
T json_number(const nlohmann::json& value) {
    static_assert(std::is_floating_point_v<T> || std::is_unsigned_v<T>, "an unsigned integer or a float");
    if (!value.is_number()) {
        // Thrown on purpose: a wrong configuration value ends the program
        // through the library's type error, whichever way it is wrong.
        throw nlohmann::json::type_error::create(302, std::string("type must be number, but is ") + value.type_name(),
                                                 &value);
    }
    if (value.is_number_float()) {
        const double number = value.get<double>();
        bool fits;
        if constexpr (std::is_integral_v<T>) {
            // Truncated toward zero, it must be a value T holds.
            fits = number > -1.0 && number < std::ldexp(1.0, std::numeric_limits<T>::digits);
        } else {
            fits = std::fabs(number) <= static_cast<double>(std::numeric_limits<T>::max());
        }
        if (!fits) {
            throw nlohmann::json::type_error::create(302, "number out of range of its field: " + value.dump(), &value);
        }
    }
    return value.get<T>();
}

}  // namespace vostrelka
