// Whether this is a build with the address or the thread sanitizer: ZANDOR_SANITIZED is 1 or 0; and
// with the latter: ZANDOR_THREAD_SANITIZED.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define ZANDOR_SANITIZED 1
#elif defined(__SANITIZE_THREAD__)
#define ZANDOR_SANITIZED 1
#define ZANDOR_THREAD_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZANDOR_SANITIZED 1
#elif __has_feature(thread_sanitizer)
#define ZANDOR_SANITIZED 1
#define ZANDOR_THREAD_SANITIZED 1
#endif
#endif

#ifndef ZANDOR_SANITIZED
#define ZANDOR_SANITIZED 0
#endif
#ifndef ZANDOR_THREAD_SANITIZED
#define ZANDOR_THREAD_SANITIZED 0
#endif
