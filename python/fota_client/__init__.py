"""Requests to the firmware update daemon: the calls of libfota_client, without their prefix.

A call returns what the daemon answers and raises FotaError for any result but success. Records are those of the C headers,
fota/fota_client.h and what it includes, which say what each call does and what a field means. Their texts are str here: UTF-8,
other bytes as surrogate escapes. Threads may call at once; a forked child makes calls of its own, and may only end() those
of its parent.
"""

import ctypes
import os
from ctypes import byref
from enum import IntEnum
from typing import Annotated, Any, Optional, Type, TypeVar

_library = ctypes.CDLL("libfota_client.so.0", use_errno=True)
for _function in ("client_version", "event_name", "result_name", "result_meaning"):
    getattr(_library, "fota_" + _function).restype = ctypes.c_char_p

SUCCESS = 0xA0000
NOT_YET = -7
TIMEOUT_MS = 20000  # of a call; validating a large package takes minutes on a slow device

Int32 = Annotated[int, ctypes.c_int32]
Uint32 = Annotated[int, ctypes.c_uint32]
Text = Annotated[str, ctypes.c_char * 255]
Text256 = Annotated[str, ctypes.c_char * 256]


def _bytes(text: str) -> bytes:
    if "\0" in text:
        raise ValueError("a text holds a NUL")
    return text.encode("utf-8", "surrogateescape")


def _str(text: Optional[bytes]) -> str:
    return (text or b"").decode("utf-8", "surrogateescape")


class FotaError(Exception):
    """The daemon refused, or gave no answer. `code` is the C result, `name` such as FOTA_RC_LOCK_NOT_AVAILABLE."""

    def __init__(self, code: int) -> None:
        self.code = code
        self.name = result_name(code)
        self.meaning = result_meaning(code)
        cause = f" ({os.strerror(ctypes.get_errno())})" if self.name == "FOTA_CLIENT_NO_RESOURCES" else ""
        super().__init__(f"{self.meaning or 'unknown result'}{cause} ({self.name or code})")


class _Fields:
    """Texts of a record go in and come out as str."""

    def __getattribute__(self, name: str) -> Any:
        value = super().__getattribute__(name)
        return _str(value) if isinstance(value, bytes) else value

    def __setattr__(self, name: str, value: Any) -> None:
        super().__setattr__(name, _bytes(value) if isinstance(value, str) else value)

    def __repr__(self) -> str:
        fields = ", ".join(f"{name}={getattr(self, name)!r}" for name, *_ in self._fields_ if name[0] != "_")
        return f"{type(self).__name__}({fields})"


_C = TypeVar("_C", bound=type)


def _layout(size: int) -> Any:
    """Makes the fields of a C record of its annotations."""

    def lay_out(record: _C) -> _C:
        kinds = [(name, getattr(kind, "__metadata__", [kind])[0]) for name, kind in record.__annotations__.items()]
        record._fields_ = kinds  # type: ignore
        assert ctypes.sizeof(record) == size, record
        return record

    return lay_out


class _Record(_Fields, ctypes.Structure):
    pass


@_layout(2056)
class PkgInfo(_Record):
    pkg_info_word: Uint32
    pkg_size: Uint32
    pkg_ver: Text
    pkg_name: Text
    pkg_description: Text
    update_method: Text
    manufacturer: Text256
    est_update_time: Uint32
    aux_text1: Text
    aux_text2: Text
    agent_name: Text
    _alignment: Annotated[Any, ctypes.c_uint8 * 3]


@_layout(2844)
class HistoryRec(_Record):
    rec_type: Uint32
    status: Uint32
    reason: Text
    update_date: Text
    _alignment: Annotated[Any, ctypes.c_uint8 * 2]
    rec_id: Uint32
    install_defer_count: Uint32
    _reserved1: Uint32
    pkg_info: PkgInfo
    linux_pri_result: Uint32
    modem_pri_result: Uint32
    _reserved2: Annotated[Any, ctypes.c_uint8 * 248]


@_layout(520)
class FileOps(_Record):
    fops_code: Uint32
    fops_path: Text
    fops_data: Annotated[Any, ctypes.c_uint8 * 256]
    _pad: Annotated[Any, ctypes.c_uint8]
    fops_data_len: Uint32


@_layout(2312)
class ValidateRequest(_Record):
    pkg_path: Text256
    pkg_info: PkgInfo


@_layout(264)
class InstallRequest(_Record):
    agent_id: Text256
    boot_preference: Uint32
    wait_secs: Uint32


@_layout(516)
class AbortRequest(_Record):
    agent_id: Text256
    status: Uint32
    reason: Text


@_layout(260)
class RecordCount(_Record):
    count: Uint32
    list: Text256


@_layout(1280)
class SideloadRequest(_Record):
    agent_id: Text
    pkg_path: Text
    _unused: Annotated[Any, ctypes.c_uint8 * 766]
    est_update_time: Uint32


@_layout(1530)
class DeviceInfo(_Record):
    modem_version: Text
    os_version: Text
    pri_version: Text
    imei: Text
    mdn: Text
    model: Text


@_layout(2844)
class Payload(_Fields, ctypes.Union):
    text: Text
    agent_id: Text
    value: Uint32
    file_ops: FileOps
    validate: ValidateRequest
    install: InstallRequest
    abort: AbortRequest
    record_count: RecordCount
    sideload: SideloadRequest
    device_info: DeviceInfo
    record: HistoryRec


@_layout(3072)
class EventMsg(_Record):
    _routing_header: Annotated[Any, ctypes.c_uint8 * 216]
    result: Uint32
    event: Int32
    _reserved: Uint32
    payload: Payload


@_layout(16)
class Call(_Record):
    """A request under way; `fd` is readable when there is something to receive."""

    fd: Int32
    _pid: Uint32
    _number: Uint32
    _sequence: Uint32

    def fileno(self) -> int:
        return self.fd


@_layout(2852)
class Broadcast(_Record):
    key: Int32  # a BroadcastKey
    value: Int32
    record: HistoryRec


class BroadcastKey(IntEnum):
    UPGRADE_STATUS = 1
    UPDATE_STATUS = 2
    REVERT_STATUS = 3
    BACKUP_BEFORE_UPDATE = 4


class Boot(IntEnum):
    ONLINE = 0
    SHUTDOWN = 1
    LPM = 2


_R = TypeVar("_R", bound=_Record)


def _check(result: int) -> None:
    if result != SUCCESS:
        raise FotaError(result)


def _call(name: str, *arguments: Any) -> None:
    _check(getattr(_library, "fota_client_" + name)(
        *(_bytes(argument) if isinstance(argument, str) else argument for argument in arguments)))


def _number(name: str, timeout_ms: int, *arguments: Any, kind: Any = ctypes.c_uint32) -> int:
    number = kind()
    _call(name, *arguments, byref(number), timeout_ms)
    return int(number.value)


def _text(name: str, timeout_ms: int, *arguments: Any) -> str:
    text = ctypes.create_string_buffer(255)
    _call(name, *arguments, text, timeout_ms)
    return _str(text.value)


def _record(kind: Type[_R], name: str, timeout_ms: int, *arguments: Any) -> _R:
    record = kind()
    _call(name, *arguments, byref(record), timeout_ms)
    return record


def version() -> str:
    return _str(_library.fota_client_version())


def event_name(event: int) -> str:
    """Empty when there is none; the next two as well."""
    return _str(_library.fota_event_name(event))


def result_name(result: int) -> str:
    return _str(_library.fota_result_name(result))


def result_meaning(result: int) -> str:
    return _str(_library.fota_result_meaning(result))


def request(msg: EventMsg, timeout_ms: int = TIMEOUT_MS) -> None:
    """Replaces `msg` by the answer."""
    _call("request", byref(msg), timeout_ms)


def send(msg: EventMsg) -> Call:
    """Does not wait for the answer. A FotaError with the code NOT_YET: the daemon's queue is full, try again later."""
    call = Call()
    _call("send", byref(msg), byref(call))
    return call


def receive(call: Call) -> Optional[EventMsg]:
    """None when the answer is not there yet."""
    answer = EventMsg()
    result = _library.fota_client_receive(byref(call), byref(answer))
    if result == NOT_YET:
        return None
    _check(result)
    return answer


def end(call: Call) -> None:
    """Gives back what a call holds, whether it was answered or not."""
    _library.fota_client_end(byref(call))


def broadcasts_open() -> int:
    """A descriptor for broadcast_next, which os.close() closes."""
    fd = int(_library.fota_client_broadcasts_open())
    if fd < 0:
        raise FotaError(fd)
    return fd


def broadcast_next(fd: int) -> Optional[Broadcast]:
    """None when there is none yet."""
    broadcast = Broadcast()
    result = _library.fota_client_broadcast_next(fd, byref(broadcast))
    if result == NOT_YET:
        return None
    _check(result)
    return broadcast


def remove_reply_queues() -> None:
    _library.fota_client_remove_reply_queues()


def create_session_lock(agent: str, timeout_ms: int = TIMEOUT_MS) -> None:
    _call("create_session_lock", agent, timeout_ms)


def clear_session_lock(agent: str, timeout_ms: int = TIMEOUT_MS) -> None:
    _call("clear_session_lock", agent, timeout_ms)


def get_max_pkg_size(timeout_ms: int = TIMEOUT_MS) -> int:
    return _number("get_max_pkg_size", timeout_ms)


def get_sideload_max_pkg_size(timeout_ms: int = TIMEOUT_MS) -> int:
    return _number("get_sideload_max_pkg_size", timeout_ms)


def validate_update_pkg(path: str, info: PkgInfo, timeout_ms: int = TIMEOUT_MS) -> int:
    """The id of the record made. The FotaError of a package that is not good has it as `rec_id`; 0: none was made."""
    rec_id = ctypes.c_uint32()
    try:
        _call("validate_update_pkg", path, byref(info), byref(rec_id), timeout_ms)
    except FotaError as error:
        setattr(error, "rec_id", rec_id.value)
        raise
    return rec_id.value


def get_src_pkg_version(agent: str, timeout_ms: int = TIMEOUT_MS) -> str:
    return _text("get_src_pkg_version", timeout_ms, agent)


def get_tgt_pkg_version(agent: str, timeout_ms: int = TIMEOUT_MS) -> str:
    return _text("get_tgt_pkg_version", timeout_ms, agent)


def get_current_sess_record(agent: str, timeout_ms: int = TIMEOUT_MS) -> HistoryRec:
    return _record(HistoryRec, "get_current_sess_record", timeout_ms, agent)


def incr_install_defer_count(agent: str, timeout_ms: int = TIMEOUT_MS) -> None:
    _call("incr_install_defer_count", agent, timeout_ms)


def start_installation(agent: str, boot_preference: int = Boot.ONLINE, wait_secs: int = 0,
                       timeout_ms: int = TIMEOUT_MS) -> None:
    _call("start_installation", agent, int(boot_preference), wait_secs, timeout_ms)


def abort_current_session(agent: str, status: int, reason: str, timeout_ms: int = TIMEOUT_MS) -> None:
    _call("abort_current_session", agent, status, reason, timeout_ms)


def get_update_status(agent: str, timeout_ms: int = TIMEOUT_MS) -> HistoryRec:
    return _record(HistoryRec, "get_update_status", timeout_ms, agent)


def get_revert_status(timeout_ms: int = TIMEOUT_MS) -> HistoryRec:
    return _record(HistoryRec, "get_revert_status", timeout_ms)


def get_upgrade_status(timeout_ms: int = TIMEOUT_MS) -> int:
    return _number("get_upgrade_status", timeout_ms, kind=ctypes.c_int32)


def sideload_prepare_package(path: str, timeout_ms: int = TIMEOUT_MS) -> None:
    _call("sideload_prepare_package", path, timeout_ms)


def sideload_start_installation(agent: str, path: str, timeout_ms: int = TIMEOUT_MS) -> int:
    return _number("sideload_start_installation", timeout_ms, agent, path)


def sua_update_start(info: DeviceInfo, timeout_ms: int = TIMEOUT_MS) -> None:
    _call("sua_update_start", byref(info), timeout_ms)


def factory_reset(timeout_ms: int = TIMEOUT_MS) -> None:
    _call("factory_reset", timeout_ms)


def get_record_count(timeout_ms: int = TIMEOUT_MS) -> RecordCount:
    return _record(RecordCount, "get_record_count", timeout_ms)


def get_record_by_index(index: int, timeout_ms: int = TIMEOUT_MS) -> HistoryRec:
    return _record(HistoryRec, "get_record_by_index", timeout_ms, index)


def get_record_by_id(rec_id: int, timeout_ms: int = TIMEOUT_MS) -> HistoryRec:
    return _record(HistoryRec, "get_record_by_id", timeout_ms, rec_id)


def get_last_success_rec(timeout_ms: int = TIMEOUT_MS) -> HistoryRec:
    return _record(HistoryRec, "get_last_success_rec", timeout_ms)


def modify_record_by_id(record: HistoryRec, timeout_ms: int = TIMEOUT_MS) -> None:
    """Replaces `record` by what is stored now."""
    _call("modify_record_by_id", byref(record), timeout_ms)


def cfg_get_current_record(timeout_ms: int = TIMEOUT_MS) -> HistoryRec:
    return _record(HistoryRec, "cfg_get_current_record", timeout_ms)


def cfg_save_new_record(date: str, version: str, firmware: str, timeout_ms: int = TIMEOUT_MS) -> None:
    _call("cfg_save_new_record", date, version, firmware, timeout_ms)


def get_update_check_time(timeout_ms: int = TIMEOUT_MS) -> str:
    return _text("get_update_check_time", timeout_ms)


def set_update_check_time(text: str, timeout_ms: int = TIMEOUT_MS) -> None:
    _call("set_update_check_time", text, timeout_ms)


def get_kernel_version(timeout_ms: int = TIMEOUT_MS) -> str:
    return _text("get_kernel_version", timeout_ms)


def stop_in_recovery(stop: bool, timeout_ms: int = TIMEOUT_MS) -> None:
    _call("stop_in_recovery", int(stop), timeout_ms)


def decrypt_pkg(timeout_ms: int = TIMEOUT_MS) -> None:
    _call("decrypt_pkg", timeout_ms)


def file_create(path: str, timeout_ms: int = TIMEOUT_MS) -> None:
    _call("file_create", path, timeout_ms)


def file_write(path: str, data: bytes, timeout_ms: int = TIMEOUT_MS) -> None:
    _call("file_write", path, data, ctypes.c_size_t(len(data)), timeout_ms)


def file_read_str(path: str, timeout_ms: int = TIMEOUT_MS) -> str:
    return _text("file_read_str", timeout_ms, path)


def file_read_uint32(path: str, timeout_ms: int = TIMEOUT_MS) -> int:
    return _number("file_read_uint32", timeout_ms, path)


def file_remove(path: str, timeout_ms: int = TIMEOUT_MS) -> None:
    _call("file_remove", path, timeout_ms)
