// How objects are told apart in descriptions and log lines: "<VELRoute: 0x55d0c8>".
#pragma once

#include <string>
#include <typeinfo>

namespace vel {

/// The name of a class as it stands in the source, its namespaces included.
std::string className(const std::type_info& type);

/// "<", the name of the class, the address in hexadecimal, ">". `type` is `typeid(*this)`, so that
/// subclasses show their own name.
std::string objectDescription(const std::type_info& type, const void* address);

}  // namespace vel
