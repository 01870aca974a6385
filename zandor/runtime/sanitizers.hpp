// Whether this is a build with the address or the thread sanitizer: ZANDOR_SANITIZED is 1 or 0.
#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZANDOR_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZANDOR_SANITIZED 1
#endif
#endif

#ifndef ZANDOR_SANITIZED
#define ZANDOR_SANITIZED 0
#endif
