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

from ._enums import (
    Connection,
    ErrorCode,
    ErrorOrigin,
    FeedStream,
    FileLoc,
    ImageFormat,
    ImuSelect,
    LogChannel,
    Received,
    Register,
    RxState,
    Verbosity,
)
from ._orvaccess import (
    Access,
    AuxData,
    DiagData,
    Error,
    FeatData,
    FeedPose,
    FeedRecovery,
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

__all__ = [
    "Access", "AuxData", "DiagData", "Error", "FeatData", "FeedPose", "FeedRecovery", "GpsData", "HubData",
    "Image", "ImageInfo", "ImuCrs", "ImuData", "PlatPoseData", "PoseFeed", "PoseFeedReader", "PoseIterator",
    "PoseRecStats", "QueuedErrorCode", "Status",
    "TargetCount", "TgtData", "TgtResData", "TrkDataExt", "error_message", "error_text", "get_time_ms", "snooze_ms",
    # The enumerations of the C headers (_enums.py, made by the build).
    "Connection", "ErrorCode", "ErrorOrigin", "FeedStream", "FileLoc", "ImageFormat", "ImuSelect", "LogChannel",
    "Received", "Register", "RxState", "Verbosity",
]
