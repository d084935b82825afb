"""Harness of the system tests: runs the real binary and looks at it from outside.

waiting    bounded waits, scaled for slow (sanitizer) builds
ports      instance numbers and UDP ports that no other test process uses
proxy      one running tx_proxy with its output captured line by line
receiver   UDP receivers, senders and the flow-controlled pump between them
rtp        building and reading RTP datagrams
mpegts     a real MPEG transport stream to send
netns      network namespaces and interfaces of a test's own
control    client of the control socket
refusal    system calls of the proxy that are made to fail
"""
