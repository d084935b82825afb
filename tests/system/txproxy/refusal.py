"""Makes chosen system calls of a child fail, for errors that no set-up of the outside can bring about.

preexec(rules...) is given to Proxy; a rule is made by refuse(call, error, argument=value...).
"""

import ctypes
import errno
import platform
import struct

PR_SET_NO_NEW_PRIVS = 38
PR_SET_SECCOMP = 22
SECCOMP_MODE_FILTER = 2
SECCOMP_RET_ALLOW = 0x7FFF0000
SECCOMP_RET_ERRNO = 0x00050000
LOAD_WORD = 0x20
JUMP_IF_EQUAL = 0x15
RETURN = 0x06
FIRST_ARGUMENT_OFFSET = 16
ARGUMENT_BYTES = 8

CALLS = {
    "x86_64": {"socket": 41, "setsockopt": 54, "getsockopt": 55},
    "aarch64": {"socket": 198, "setsockopt": 208, "getsockopt": 209},
}

_libc = ctypes.CDLL(None, use_errno=True)


class Program(ctypes.Structure):
    _fields_ = [("length", ctypes.c_ushort), ("filters", ctypes.c_void_p)]


def refuse(call, error=errno.EPERM, **arguments):
    """The call fails with `error` when its arguments (arg0=, arg1=, ...) have the values given."""
    number = CALLS[platform.machine()][call]
    return number, error, [(int(name[3:]), value) for name, value in arguments.items()]


def _instruction(code, value, if_true=0, if_false=0):
    return struct.pack("=HBBI", code, if_true, if_false, value)


def _filter(rules):
    program = b""
    for number, error, arguments in rules:
        tests = [(0, number)]
        tests += [(FIRST_ARGUMENT_OFFSET + ARGUMENT_BYTES * index, value) for index, value in arguments]
        for i, (offset, value) in enumerate(tests):
            rest_of_rule = 2 * (len(tests) - i - 1) + 1
            program += _instruction(LOAD_WORD, offset)
            program += _instruction(JUMP_IF_EQUAL, value, 0, rest_of_rule)
        program += _instruction(RETURN, SECCOMP_RET_ERRNO | error)
    return program + _instruction(RETURN, SECCOMP_RET_ALLOW)


def preexec(*rules):
    """The function to run in the child before the binary starts."""
    program = ctypes.create_string_buffer(_filter(rules))
    header = Program((len(program) - 1) // 8, ctypes.addressof(program))

    def install():
        assert _libc.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0
        assert _libc.prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, ctypes.byref(header), 0, 0) == 0

    install.keep_alive = program
    return install
