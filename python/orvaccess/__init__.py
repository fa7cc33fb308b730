"""orvaccess: the orv hybrid optical-inertial tracking system from Python.

    import orvaccess

    with orvaccess.Access("orvaccess.ini") as a:
        for pose in a.poses(duration_s=1.0):
            print(pose.poseTime, pose.euler, pose.position)
        imu = a.drain_imu_data()          # every queued sample, one array
        print(imu["gyroRate"].mean(axis=0))

Access is the C++ class OrvAccess with its methods in snake_case. Getters
hand out records (TrkDataExt, ImuData, ...) whose attributes carry the C
field names, arrays as NumPy views; each drain_... call empties a queue into
one NumPy structured array with the same field names. A failing call raises
Error with the library's reason. Times are microseconds on the library
clock, angles radians, lengths metres; cbn is body to navigation, row-major.

A render loop reads poses from a PoseFeed instead: its own thread services
the tracker, and latest() or a reader's at_time() never wait for it.
"""

import enum as _enum

from . import _orvaccess
from ._orvaccess import (
    Access,
    AuxData,
    DiagData,
    Error,
    FeatData,
    FeedPose,
    GpsData,
    HubData,
    Image,
    ImageInfo,
    ImuCrs,
    ImuData,
    PlatPoseData,
    PoseFeed,
    PoseFeedReader,
    PoseIterator,
    PoseRecStats,
    QueuedErrorCode,
    Status,
    TargetCount,
    TgtData,
    TgtResData,
    TrkDataExt,
    __version__,
    error_message,
    error_text,
    get_time_ms,
    snooze_ms,
)

# The public enumerations of orvwire.h and orvaccess.h, member names as in C.
# Masks become IntFlag so that bits combine and print by name.
_ENUMS = {
    "e_OrvAccessError": ("ErrorCode", _enum.IntEnum),
    "e_OrvAccessErrorOrigin": ("ErrorOrigin", _enum.IntEnum),
    "e_OrvAccessConnection": ("Connection", _enum.IntFlag),
    "e_OrvAccessReceived": ("Received", _enum.IntFlag),
    "e_OrvAccessRxState": ("RxState", _enum.IntEnum),
    "e_OrvAccessVerbosity": ("Verbosity", _enum.IntFlag),
    "e_OrvAccessLogChannel": ("LogChannel", _enum.IntFlag),
    "e_OrvAccessImuSelect": ("ImuSelect", _enum.IntEnum),
    "e_OrvAccessFileLoc": ("FileLoc", _enum.IntEnum),
    "e_OrvAccessImageFormat": ("ImageFormat", _enum.IntEnum),
}

for _c_name, _members in _orvaccess._enums.items():
    # An enumeration added to the headers later still arrives, named after C.
    _name, _kind = _ENUMS.get(_c_name, (_c_name[len("e_OrvAccess"):], _enum.IntEnum))
    globals()[_name] = _kind(_name, _members, module=__name__)

# Each error code knows its message, as getErrorMessage gives it, with its
# name and meaning beside it where that message says only "Unknown error".
ErrorCode.message = property(lambda self: error_text(self), doc="The library's message of this code.")

__all__ = [
    "Access", "AuxData", "DiagData", "Error", "FeatData", "FeedPose", "GpsData", "HubData", "Image",
    "ImageInfo", "ImuCrs", "ImuData", "PlatPoseData", "PoseFeed", "PoseFeedReader", "PoseIterator",
    "PoseRecStats", "QueuedErrorCode", "Status",
    "TargetCount", "TgtData", "TgtResData", "TrkDataExt", "error_message", "error_text", "get_time_ms", "snooze_ms",
] + [name for name, _ in _ENUMS.values()]

del _c_name, _members, _name, _kind
