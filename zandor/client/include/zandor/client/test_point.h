/* Instants at which a test stops or kills the process. Nothing, but in the copies of the sources
 * that tests are built of: there the test program says what happens. */
#ifndef ZANDOR_CLIENT_TEST_POINT_H
#define ZANDOR_CLIENT_TEST_POINT_H

#ifdef ZANDOR_TEST_POINTS
#ifdef __cplusplus
extern "C"
#endif
    void
    zandor_test_point(const char* label);
#define ZANDOR_TEST_POINT(label) zandor_test_point(label)
#else
#define ZANDOR_TEST_POINT(label) ((void)0)
#endif

#endif
