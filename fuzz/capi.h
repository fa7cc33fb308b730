/* C-side calls of the enumeration-taking C functions, for the C interface
 * harness: C++ may not even hold an enumeration value out of its range. */
#ifndef ORVFUZZ_CAPI_H
#define ORVFUZZ_CAPI_H

#include "orvaccess/orvaccess.h"

#ifdef __cplusplus
extern "C" {
#endif

int orvfuzz_getImuData(OrvAccess* handle, int imu, int* delivered, s_OrvAccessImuData* data);
int orvfuzz_transactImu(OrvAccess* handle, int imu, unsigned char* transmit, unsigned long transmitLength,
                        unsigned char* receive, unsigned long receiveCapacity, unsigned int timeout,
                        unsigned long* receivedLength);
int orvfuzz_getFile(OrvAccess* handle, const char* remoteName, int location, const char* localPath);
int orvfuzz_getImageInfo(OrvAccess* handle, int format, unsigned long* size, int* width, int* height,
                         int* bytesPerPixel);
int orvfuzz_getImage(OrvAccess* handle, int* percent, int* format, unsigned int* sequenceId,
                     unsigned char* buffer, unsigned long capacity);

#ifdef __cplusplus
}
#endif

#endif /* ORVFUZZ_CAPI_H */
