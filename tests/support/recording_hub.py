"""A hub that notes each line in a file before it relays it: recording_hub.py FILE PUB_ENDPOINT SUB_ENDPOINT"""

import sys

import zmq

record = open(sys.argv[1], "ab", buffering=0)
taken, given = (zmq.Context.instance().socket(kind) for kind in (zmq.SUB, zmq.PUB))
for end, endpoint in ((given, sys.argv[3]), (taken, sys.argv[2])):
    end.rcvhwm = end.sndhwm = 0
    end.bind(endpoint)
taken.subscribe(b"")
while True:
    frames = taken.recv_multipart()
    if frames[0] == b"line":
        record.write(frames[1] + b"\n")
    given.send_multipart(frames)
