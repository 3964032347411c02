#pragma once
// Whether this build runs under AddressSanitizer (and its leak checker):
// such builds keep to the plain heap and free what they made, so that every
// misuse and every leak is seen.
namespace ambrel {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kAddressSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kAddressSanitized = true;
#else
inline constexpr bool kAddressSanitized = false;
#endif
#else
inline constexpr bool kAddressSanitized = false;
#endif

}  // namespace ambrel
