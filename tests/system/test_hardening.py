"""The binary is hardened: what an attacker who has found a bug would want to use is not there.

The flags are in cmake/TargetOptions.cmake; this looks at what the tools have made of them.
"""

import pytest

from txproxy.elf import Elf
from txproxy.proxy import binary

pytestmark = pytest.mark.release_only

# Each has a form that knows how much room there is, __snprintf_chk and so on.
UNBOUNDED = {"printf", "vprintf", "fprintf", "vfprintf", "snprintf", "vsnprintf", "dprintf", "vdprintf"}
PROTECTED = "__stack_chk_fail"
# Where the control thread keeps what a client has sent.
FUNCTION_WITH_A_BUFFER = "_Z22process_request_threadR14ControlContext"
STACK_GUARD_X86 = b"\x25\x28\x00\x00\x00"  # the end of an instruction that reads the guard, %fs:0x28

X86_64 = "Advanced Micro Devices X86-64"
LANDING = b"\xf3\x0f\x1e\xfa"  # endbr64
# Of the C library's start files, which have none. They are called by their fixed addresses.
START_FILES = {"_init", "_fini", "_start"}


@pytest.fixture(scope="module")
def elf():
    return Elf(binary())


def is_within(section, segment):
    return segment.address <= section.address < segment.address + segment.memory_size


def told_loader(elf, tag):
    return " ".join(value for name, value in elf.dynamic if name == tag).split()


def test_it_is_loaded_at_a_different_address_each_time(elf):
    assert elf.header["Type"].startswith("DYN ")
    assert "PIE" in told_loader(elf, "FLAGS_1")


def test_every_library_function_is_bound_before_the_start_and_no_pointer_to_one_can_be_written_after(elf):
    assert "BIND_NOW" in told_loader(elf, "FLAGS")
    assert "NOW" in told_loader(elf, "FLAGS_1")
    (read_only,) = [segment for segment in elf.segments if segment.kind == "GNU_RELRO"]
    pointers = [
        section for section in elf.sections
        if section.name.startswith((".got", ".init_array", ".fini_array", ".data.rel.ro", ".dynamic"))
    ]  # fmt: skip
    assert {".got", ".dynamic"} <= {section.name for section in pointers}
    assert [section.name for section in pointers if not is_within(section, read_only)] == []


def test_no_memory_can_be_both_written_and_run(elf):
    assert [segment.kind for segment in elf.segments if "W" in segment.flags and "E" in segment.flags] == []


def test_the_stack_cannot_be_run(elf):
    (stack,) = [segment for segment in elf.segments if segment.kind == "GNU_STACK"]
    assert "E" not in stack.flags


def test_only_code_lies_in_memory_that_can_be_run(elf):
    (code,) = [segment for segment in elf.segments if segment.kind == "LOAD" and "E" in segment.flags]
    assert code.offset != 0  # there the file's own headers are
    within = [section for section in elf.sections if "A" in section.flags and is_within(section, code)]
    assert ".text" in {section.name for section in within}
    assert [section.name for section in within if "X" not in section.flags] == []


def test_no_code_is_changed_while_it_is_loaded(elf):
    assert told_loader(elf, "TEXTREL") == []
    assert "TEXTREL" not in told_loader(elf, "FLAGS")


def test_libraries_are_looked_for_only_where_the_system_has_them(elf):
    assert told_loader(elf, "RPATH") == told_loader(elf, "RUNPATH") == []


def test_an_overrun_of_a_buffer_on_the_stack_is_noticed_before_the_function_returns(elf):
    assert PROTECTED in elf.imports
    if elf.header["Machine"] == X86_64:
        (function,) = [one for one in elf.public_functions if one.name == FUNCTION_WITH_A_BUFFER]
        assert STACK_GUARD_X86 in elf.bytes_at(function.address, function.size)


def test_texts_are_printed_by_the_functions_that_know_how_much_room_there_is(elf):
    assert {f"__{name}_chk" for name in UNBOUNDED} & elf.imports != set()
    assert UNBOUNDED & elf.imports == set()


def test_a_jump_through_a_pointer_can_only_land_at_the_begin_of_a_function(elf):
    if elf.header["Machine"] != X86_64:
        return  # no other processor has it
    functions = elf.public_functions
    assert FUNCTION_WITH_A_BUFFER in {function.name for function in functions}
    unmarked = {one.name for one in functions if elf.bytes_at(one.address, len(LANDING)) != LANDING}
    assert unmarked <= START_FILES
