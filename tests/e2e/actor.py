"""A stand-in application for the end-to-end tests: it listens on a port and,
for each line "round N" on standard input, does one of everything the
collector reports, then prints "done N <listening port>"."""
import os
import socket
import struct
import subprocess
import sys
import time


def dns_query(name):
    header = struct.pack(">HHHHHH", 0x1234, 0x0100, 1, 0, 0, 0)
    labels = b"".join(bytes([len(p)]) + p.encode() for p in name.split("."))
    return header + labels + b"\x00" + struct.pack(">HH", 1, 1)


def one_round(tag, number, work_dir, connect_to):
    base = os.path.join(work_dir, f"{tag}-{number}")
    subprocess.run(["/bin/sleep", "0.3"], check=True)  # lives long enough for /proc to be read by any back-end
    with open(base + ".txt", "w") as f:
        f.write("x")
    time.sleep(1.1)  # the portable back-end folds writes within a second of a creation into it
    with open(base + ".txt", "a") as f:
        f.write("y")
    os.utime(base + ".txt")
    os.rename(base + ".txt", base + ".moved")
    os.unlink(base + ".moved")
    held = [socket.create_connection(connect_to, timeout=5)]
    udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    udp.sendto(dns_query(f"{tag}-{number}.direct.example"), ("127.0.0.1", 53))
    udp.close()
    try:  # through the C library's resolver, which a private resolv.conf points at loopback
        socket.getaddrinfo(f"{tag}-{number}.resolver.example", 80)
    except OSError:
        pass
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen()
    held.append(listener)
    time.sleep(1.5)  # polling back-ends see sockets that stay a while
    port = listener.getsockname()[1]
    for s in held:
        s.close()
    return port


def main():
    tag, listen_port, work_dir, connect_port = sys.argv[1], int(sys.argv[2]), sys.argv[3], int(sys.argv[4])
    server = socket.socket()
    server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    server.bind(("127.0.0.1", listen_port))
    server.listen()
    print("ready", flush=True)
    for line in sys.stdin:
        words = line.split()
        if words[:1] == ["round"]:
            port = one_round(tag, int(words[1]), work_dir, ("127.0.0.2", connect_port))
            print(f"done {words[1]} {port}", flush=True)


if __name__ == "__main__":
    main()
