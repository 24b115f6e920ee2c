#pragma once
/// Run-time reflection of the services' data types.

namespace qdr::services {

/// Registers the data types of all services with RTTR. Further calls do nothing. Registering some hundred
/// types takes time, so only code that uses reflection calls it. Any thread.
///
/// A structure has one property per field, with the field's name and type eb::com::optional<T>.
/// rttr::type::get_template_arguments of that type returns T. If T is an enumeration, a variant with the
/// optional converts to std::int64_t, the numeric value. The conversion fails when the optional is empty.
void registerAllTypes();

}  // namespace qdr::services
