/* The calls of the C interface that take or give an enumeration, made from
 * C, where any int may stand for one, just as a C application makes them. */
#include "capi.h"

int orvfuzz_getImuData(OrvAccess* handle, int imu, int* delivered, s_OrvAccessImuData* data) {
    return OrvAccess_getImuData(handle, (e_OrvAccessImuSelect)imu, delivered, data);
}

int orvfuzz_transactImu(OrvAccess* handle, int imu, unsigned char* transmit, unsigned long transmitLength,
                        unsigned char* receive, unsigned long receiveCapacity, unsigned int timeout,
                        unsigned long* receivedLength) {
    return OrvAccess_transactImu(handle, (e_OrvAccessImuSelect)imu, transmit, transmitLength, receive,
                                 receiveCapacity, timeout, receivedLength);
}

int orvfuzz_getFile(OrvAccess* handle, const char* remoteName, int location, const char* localPath) {
    return OrvAccess_getFile(handle, remoteName, (e_OrvAccessFileLoc)location, localPath);
}

int orvfuzz_getImageInfo(OrvAccess* handle, int format, unsigned long* size, int* width, int* height,
                         int* bytesPerPixel) {
    return OrvAccess_getImageInfo(handle, (e_OrvAccessImageFormat)format, size, width, height, bytesPerPixel);
}

int orvfuzz_getImage(OrvAccess* handle, int* percent, int* format, unsigned int* sequenceId,
                     unsigned char* buffer, unsigned long capacity) {
    e_OrvAccessImageFormat code = ORVACCESS_IMG_640x480_1;
    const int ok = OrvAccess_getImage(handle, percent, &code, sequenceId, buffer, capacity);
    *format = (int)code;
    return ok;
}
