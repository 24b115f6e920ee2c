#pragma once
/// Run-time reflection of the services' data types.

namespace qdr::services {

/// Registers the data types of all services with RTTR, once; further calls do nothing. Registering some
/// hundred types takes a while, so it is left to whoever converts by reflection. Callable from any thread.
///
/// A structure has one property per field, named as the field, of type eb::com::optional<T>. Where T is an
/// enumeration, the optional's type has T as its template argument (rttr::type::get_template_arguments), and
/// a variant that holds the optional converts to std::int64_t, the numeric value; the conversion fails when
/// the optional is empty.
void registerAllTypes();

}  // namespace qdr::services
