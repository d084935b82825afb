"""Harness of the system tests: runs the real binary and looks at it from outside.

waiting         bounded waits, scaled for slow (sanitizer) builds
sandbox         a /dev, a /run and a network of the test process's own
ports           instance numbers and UDP ports in it
proxy           one running tx_proxy with its output captured line by line
process         what the system says about a running process
syscalls        its system calls, thread by thread
elf             what the program file says about itself
log_pipe        a log reader of the test's own
instances       further proxies beside the one of the fixtures
refusal         system calls of the proxy that are made to fail
audience        fifty receivers and one run of the proxy that sends to them
audience_worlds where they stand
receiver        UDP receivers, senders and the flow-controlled pump between them
rtp             building and reading RTP datagrams
mpegts          a real MPEG transport stream to send
traffic         sending to proxies whose output does not follow their input at once
flooding        a program that sends as fast as a core can
send_faults     a stream, and what each receiver has of it while a send fails
capture         the frames that leave by an interface of it
forged_icmp     what routers and receivers say about datagrams that they could not deliver
kernel_counts   what the kernel of a namespace has counted of UDP
netns           network namespaces and interfaces of a test's own
shaping         a cable of such a network that is too slow for what is sent
model_receiver  the receiver's side of the protocol, and two models of receivers
link            a bad line between a receiver and the proxy: an arqlink that runs
arqrx           the receiver program beside the proxy
control         client of the control socket
raw_control     plain connections to the control socket, for clients that behave badly
reports         what a proxy says about itself
page            what the pages of docs say
impairment      deliberate loss: its files, and a model of the fixed pattern
plugin_builder  encryption libraries for the tests
programs        C and C++ programs and libraries of the tests
preload         libraries that a proxy runs with before all others
heap            what a running proxy holds on its heap
refused_memory  allocations of a proxy that fail
refused_sends   sends of a proxy that fail as if the kernel had refused them
stepped_clock   a wall clock of a proxy's own
"""
