/* Glidewell disk defragmentation engine: the ten exported functions.
 *
 * A host initialises the library once, creates an instance, starts, pauses,
 * resumes and stops defragmentation, polls dfrg_isRunning, and reads the last
 * error after a failure or after a run has ended. All functions use the
 * Windows standard calling convention on Windows; the macro is empty elsewhere.
 */
#ifndef GLIDEWELL_DFRG_H_
#define GLIDEWELL_DFRG_H_

#include <wchar.h>

#ifdef _WIN32
#define DFRG_CALL __stdcall
#else
#define DFRG_CALL
#endif

#if defined(_WIN32) && defined(GLIDEWELL_BUILDING_DLL)
#define DFRG_API __declspec(dllexport)
#elif defined(__GNUC__) && !defined(_WIN32)
#define DFRG_API __attribute__((visibility("default")))
#else
#define DFRG_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef void* DfrgHandle;

/* 1 on success; 0 when already initialised. installDir ends with a separator. */
DFRG_API int DFRG_CALL dfrg_initialize(const wchar_t* installDir, const char* registryKeyPath);
/* 1; 0 when not initialised. Delete every instance first. */
DFRG_API int DFRG_CALL dfrg_deinitialize(void);
/* A new instance, or null when not initialised or when construction failed. */
DFRG_API DfrgHandle DFRG_CALL dfrg_createDefragInstance(void);
DFRG_API int DFRG_CALL dfrg_deleteDefragInstance(DfrgHandle handle);
/* Starts a pass over every enabled volume (stopping a running one first). */
DFRG_API int DFRG_CALL dfrg_startDefrag(DfrgHandle handle);
/* Returns after the worker has stopped. */
DFRG_API int DFRG_CALL dfrg_stopDefrag(DfrgHandle handle);
/* pause non-zero pauses, 0 resumes. */
DFRG_API int DFRG_CALL dfrg_pauseDefrag(DfrgHandle handle, int pause);
/* 1 while no run has finished since the last call that returned 0. */
DFRG_API int DFRG_CALL dfrg_isRunning(DfrgHandle handle);
DFRG_API int DFRG_CALL dfrg_getLastErrorCode(void);
/* Never null; "" when no message was stored. */
DFRG_API const char* DFRG_CALL dfrg_getLastErrorMessage(void);

#ifdef __cplusplus
}
#endif

#endif /* GLIDEWELL_DFRG_H_ */
