"""Options, defaults, messages and exit statuses of the command line."""

import re

import pytest

from txproxy import ports, receiver, rtp
from txproxy.control import ControlClient
from txproxy.proxy import run

NAME = "./some dir/tx"
TRY_LINE = f"Try '{NAME} -h' for more information.\n"


def fails_with(message, *arguments):
    assert run(*arguments, argv0=NAME) == (255, "", message)


def test_help_prints_the_usage_text_on_standard_error_and_exits_0():
    status, stdout, stderr = run("-h", argv0=NAME)
    assert (status, stdout) == (0, "")
    before, instance_line, after = re.fullmatch(
        r"(.*?UDP input mode\n)(  -I\t\t[^\n\t]+\n)(.*)", stderr, re.DOTALL
    ).groups()
    assert before == (
        f"Usage: {NAME} [Net Tx Options] ListenUdpPort [ListenMulticastAddr]\n"
        " Net Tx Options\n"
        "  -a\t\tDestination IP Address or hostname\n"
        "  -p\t\tDestination Udp port\n"
        "  -r\t\tArq Request port\n"
        "  -u\t\tUDP input mode\n"
    )
    assert "instance number" in instance_line.lower()
    assert after == "  -z\t\tLoad Encryption library\n  -Z\t\tEncryption Password\n"


def test_options_after_help_are_not_looked_at():
    status, stdout, stderr = run("-h", "-p", "12x", "-k", argv0=NAME)
    assert (status, stdout) == (0, "")
    assert stderr.startswith("Usage: ") and "12x" not in stderr and "Try" not in stderr


def test_an_error_before_help_wins():
    fails_with(f"{NAME}: invalid udp port: 12x\n", "-p", "12x", "-h")


@pytest.mark.parametrize(
    "option, message",
    [
        ("-1", "invalid nStream1Percent: {}"),
        ("-b", "invalid udp port: {}"),
        ("-G", "invalid gross media bit rate : {}"),
        ("-n", "invalid nStreams: {}"),
        ("-p", "invalid udp port: {}"),
        ("-r", "invalid udp port: {}"),
        ("-X", "invalid nPacingBitrate: {}"),
    ],
)
@pytest.mark.parametrize("value", ["12x", "x", "12 ", "1.5", "0x10", "-", " "])
def test_a_number_with_other_characters_is_refused(option, message, value):
    fails_with(f"{NAME}: {message.format(value)}\n", option, value, "5000")


def test_an_instance_that_is_no_number_is_refused_with_program_and_value():
    status, stdout, stderr = run("-I", "12x", "5000", argv0=NAME)
    assert (status, stdout) == (255, "")
    assert re.fullmatch(re.escape(NAME) + r": [^\n]*12x\n", stderr)


def test_an_unknown_option_gets_the_line_of_getopt_and_the_try_line():
    fails_with(f"{NAME}: invalid option -- 'k'\n{TRY_LINE}", "-k", "5000")


@pytest.mark.parametrize("letter", "1abGlnpqrINXZ")
def test_an_option_without_its_argument_gets_the_line_of_getopt_and_the_try_line(letter):
    fails_with(f"{NAME}: option requires an argument -- '{letter}'\n{TRY_LINE}", f"-{letter}")


@pytest.mark.parametrize("letter", "huz")
def test_an_option_without_argument_takes_none(letter, lease):
    # "h" ends the run well; "u" and "z" leave the positional arguments missing.
    status, _, stderr = run("-I", lease.instance, f"-{letter}", argv0=NAME)
    if letter == "h":
        assert status == 0
    else:
        assert (status, stderr) == (255, f"{NAME}: missing arguments\n{TRY_LINE}")


def test_no_positional_argument_is_an_error(lease):
    fails_with(f"{NAME}: missing arguments\n{TRY_LINE}", "-I", lease.instance)


def test_a_third_positional_argument_is_an_error(lease):
    fails_with(f"{NAME}: extra operand\n{TRY_LINE}", "-I", lease.instance, "5000", "239.1.1.1", "x")


def test_argument_errors_give_the_instance_lock_back(lease):
    fails_with(f"{NAME}: missing arguments\n{TRY_LINE}", "-I", lease.instance)
    assert ports.udp_port_is_free(ports.lock_port(lease.instance))


@pytest.fixture
def start_in_island(launch, lease, island):
    """Starts with only the arguments given (and -I), where all ports and addresses are free."""

    def start(*arguments, **keywords):
        return launch("-I", lease.instance, *arguments, namespace=island, **keywords)

    return start


def bound_ports(proxy):
    """Request port and ping port, as the listeners announce them."""
    bound = re.compile(r"SocketListener: sock bound to port (\d+)")
    proxy.wait_stderr(bound, count=2)
    return [int(bound.fullmatch(line).group(1)) for line in proxy.stderr.find(bound)]


def test_the_defaults_are_destination_10000_request_7020_instance_1_and_4096_buffers(launch, island, closing):
    closing(ports.Lease(wanted=1))
    proxy = launch("5000", namespace=island).wait_ready()
    assert bound_ports(proxy) == [7020, 10000]
    with pytest.raises(OSError):
        receiver.udp_socket("0.0.0.0", 32124, namespace=island, reuse=False)
    with ControlClient(1) as control:
        assert control.request("RxStat") == "NET_TOTAL_PACKETS=0\nNET_LOSS=0\n"
    assert proxy.stdout.lines == ["Number of ARQ Buffers = 4096", "Listening on port 5000 for incoming stream"]


def test_media_goes_to_port_10000_by_default(start_in_island, island, closing):
    receiver_ = closing(receiver.Receiver("127.0.0.2", 10000, namespace=island))
    sender = closing(receiver.Sender("127.0.0.1", 5000, namespace=island))
    start_in_island("-a", "127.0.0.2", "5000").wait_ready()
    sender.send(rtp.packet(1, b"media"))
    assert rtp.payload(receiver_.wait_count(1)[0]) == b"media"


@pytest.mark.parametrize(
    "value, port",
    [("70000", 4464), ("-1", 65535), (" 7000", 7000), ("+7000", 7000), ("6553600007001", 7001)],
)
def test_a_port_keeps_the_low_16_bits_of_any_number(start_in_island, value, port):
    assert bound_ports(start_in_island("-p", value, "5000")) == [7020, port]


def test_destination_port_70000_sends_to_4464(start_in_island, island, closing):
    receiver_ = closing(receiver.Receiver("127.0.0.2", 4464, namespace=island))
    sender = closing(receiver.Sender("127.0.0.1", 5000, namespace=island))
    start_in_island("-p", "70000", "-a", "127.0.0.2", "5000").wait_ready()
    sender.send(rtp.packet(1, b"media"))
    assert rtp.payload(receiver_.wait_count(1)[0]) == b"media"


@pytest.mark.parametrize("option, position", [("-r", 0), ("-p", 1)])
def test_an_empty_port_is_0(start_in_island, option, position):
    assert bound_ports(start_in_island(option, "", "5000"))[position] == 0


def test_request_port_70000_listens_on_4464(start_in_island):
    assert bound_ports(start_in_island("-r", "70000", "5000")) == [4464, 10000]


@pytest.mark.parametrize("text, port", [("70000", 4464), ("5001x", 5001), (" 5002", 5002)])
def test_the_listen_port_is_converted_without_a_check(start_in_island, text, port):
    start_in_island(text).wait_stdout(f"Listening on port {port} for incoming stream")


def test_a_listen_port_without_digits_is_0(start_in_island):
    start_in_island("input").wait_stdout("Listening on port 0 for incoming stream")


@pytest.mark.parametrize("arguments", [[], ["-G", "50000000"], ["-b", "0"], ["-b", ""]])
def test_default_bit_rate_and_unicast_port_are_not_announced(start_in_island, arguments):
    proxy = start_in_island(*arguments, "5000").wait_ready()
    assert proxy.stdout.lines == ["Number of ARQ Buffers = 4096", "Listening on port 5000 for incoming stream"]


@pytest.mark.parametrize(
    "arguments, line",
    [
        (["-G", "1000000"], "GrossMediaBitrate is 1000000"),
        (["-G", ""], "GrossMediaBitrate is 0"),
        (["-G", "-5"], "GrossMediaBitrate is -5"),
        (["-b", "5600"], "UnicastUdpPort is 5600"),
        (["-b", "70000"], "UnicastUdpPort is 4464"),
    ],
)
def test_other_bit_rates_and_unicast_ports_are_announced_first(start_in_island, arguments, line):
    proxy = start_in_island(*arguments, "5000").wait_ready()
    assert proxy.stdout.lines == [
        line,
        "Number of ARQ Buffers = 4096",
        "Listening on port 5000 for incoming stream",
    ]


def test_bit_rate_comes_before_unicast_port_and_after_the_multicast_address(start_in_island):
    proxy = start_in_island("-b", "5600", "-G", "7", "5000", "10.1.1.1").wait_ready()
    assert proxy.stdout.lines == [
        "Listening on multicast address 10.1.1.1",
        "GrossMediaBitrate is 7",
        "UnicastUdpPort is 5600",
        "Number of ARQ Buffers = 4096",
        "Listening on port 5000 for incoming stream",
    ]


@pytest.mark.parametrize("value", ["1", "2", "4", "4096", "8192"])
def test_a_power_of_two_is_kept_as_buffer_size_without_a_message(start_in_island, value):
    proxy = start_in_island("-q", value, "5000").wait_ready()
    assert proxy.stdout.find(f"Number of ARQ Buffers = {value}")
    assert "ARQ buffer size" not in proxy.stderr.text


@pytest.mark.parametrize(
    "value, rounded", [("3000", 4096), ("5000", 8192), ("4097", 8192), ("3", 4), ("0", 1), ("-7", 1), ("", 1)]
)
def test_another_buffer_size_is_rounded_up_with_a_message(start_proxy, net, launch, value, rounded):
    proxy = launch("-I", net.instance, "-p", net.destination, "-r", net.request, "-q", value, net.input, argv0=NAME)
    proxy.wait_ready()
    assert proxy.stderr.lines[0] == f"{NAME}: ARQ buffer size changed to: {rounded}"
    assert proxy.stdout.find(f"Number of ARQ Buffers = {rounded}")


def test_a_bad_buffer_size_is_reported_and_parsing_goes_on(start_in_island):
    proxy = start_in_island("-q", "abc", "-G", "8", "5000").wait_ready()
    assert proxy.stderr.lines[0] == "Invalid ARQ buffer size: abc"
    assert "size changed" not in proxy.stderr.text
    assert proxy.stdout.lines[:2] == ["GrossMediaBitrate is 8", "Number of ARQ Buffers = 4096"]


def test_a_bad_buffer_size_leaves_an_earlier_one(start_in_island):
    proxy = start_in_island("-q", "64", "-q", "12x", "5000").wait_ready()
    assert proxy.stdout.find("Number of ARQ Buffers = 64")


def test_a_bad_buffer_size_leaves_the_exit_status_alone(lease):
    assert run("-q", "abc", "-h")[0] == 0
    message = f"Invalid ARQ buffer size: abc\n{NAME}: missing arguments\n{TRY_LINE}"
    fails_with(message, "-I", lease.instance, "-q", "abc")


@pytest.mark.parametrize(
    "arguments",
    [["-l", "9"], ["-l", "12"], ["-l", "abc"], ["-l", ""], ["-N", "anything"], ["-N", "-h"], ["-Z", ""], ["-X", "0"]],
)
def test_options_without_visible_effect_leave_output_and_media_alone(
    start_proxy, receive, sender, arguments
):
    receiver_ = receive()
    proxy = start_proxy(*arguments, "-a", "127.0.0.2")
    sender.send(rtp.packet(1, b"media"))
    assert rtp.payload(receiver_.wait_count(1)[0]) == b"media"
    assert len(proxy.stdout.lines) == 2
    assert "Pacing" not in proxy.stderr.text


def test_a_pacing_bit_rate_of_1_or_more_switches_pacing_on(start_proxy):
    start_proxy("-X", "1000000").wait_stderr("Pacing bit rate 1000000")


def test_a_destination_text_of_any_length_overruns_nothing(start_proxy, receive, sender):
    receiver_ = receive()
    start_proxy("-a", "127.0.0.2" + "," * 20000)
    sender.send(rtp.packet(1, b"media"))
    assert rtp.payload(receiver_.wait_count(1)[0]) == b"media"


def test_the_last_of_a_repeated_option_holds(start_in_island):
    assert bound_ports(start_in_island("-p", "6001", "-p", "6002", "5000")) == [7020, 6002]
