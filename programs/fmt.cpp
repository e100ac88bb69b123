// SPDX-License-Identifier: MIT
// The parts of the fmt library that are no templates, or are templates that it declares and leaves to its one
// source file.
#include <fmt/format-inl.h>

FMT_BEGIN_NAMESPACE
namespace detail {

template FMT_API dragonbox::decimal_fp<float> dragonbox::to_decimal(float x) noexcept;
template FMT_API dragonbox::decimal_fp<double> dragonbox::to_decimal(double x) noexcept;

template FMT_API locale_ref::locale_ref(const std::locale& loc);
template FMT_API std::locale locale_ref::get<std::locale>() const;

template FMT_API thousands_sep_result<char> thousands_sep_impl(locale_ref);
template FMT_API char decimal_point_impl(locale_ref);
template FMT_API void buffer<char>::append(const char*, const char*);
template FMT_API void vformat_to(buffer<char>&, string_view, basic_format_args<FMT_BUFFER_CONTEXT(char)>,
                                 locale_ref);

}  // namespace detail
FMT_END_NAMESPACE
