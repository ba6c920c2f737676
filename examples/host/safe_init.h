/* InitStylusLib for a C host: an exception cannot pass through C, so this C++ wrapper catches the
 * one a bad configuration or model throws and hands back its text instead. */
#ifndef STYLUS_HOST_SAFE_INIT_H
#define STYLUS_HOST_SAFE_INIT_H

#include <stddef.h>

#include <StylusStrokePredictor.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The handle, or NULL with the reason in error (always terminated when size > 0). */
StylusLibHandle* initStylusLibOrNull(const StylusPredictionParams* params, char* error, size_t size);

#ifdef __cplusplus
}
#endif

#endif
