// What records are as values: compared, copied and told in words by their field tables, without the interpreter
// running any code meanwhile.
#pragma once

#include "records/RecordType.hpp"

#include <string>
#include <string_view>

namespace vorlinkit::python {

/// Whether two records of a type hold the same.
bool sameContent(const RecordType& type, void* left, void* right);

/// Makes a record hold what another one of its type holds. Nobody may be looking at the lists and variants of `to`.
void copyContent(const RecordType& type, void* to, void* from);

/// "Name(attribute=value, ...)", UTF-8; long texts, blobs and lists are cut short. Throws
/// pybind11::error_already_set when memory runs out.
std::string describeContent(std::string_view name, const RecordType& type, void* record);

/// The name of a class without its module.
std::string_view shortName(const char* name);

} // namespace vorlinkit::python
