#ifndef SUPPORT_SANITIZED_H
#define SUPPORT_SANITIZED_H

// Whether everything is built with a sanitizer: slower, and with libraries of its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
inline constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
inline constexpr bool kSanitized = false;
#endif

#endif
