"""The loads by name, how many requests each round has, and the figures to reach. load_options.cpp
knows what each of them sends.
"""

import dataclasses

ANSWER = "Hello, world!"


@dataclasses.dataclass(frozen=True)
class Load:
    """One load of the processor time table, and of instructions and system calls."""
    name: str
    requests: int            # per round
    traced: tuple            # requests for the tracers: few, many
    warmup: int
    ratio: float | None = None         # to reach
    instructions: int | None = None    # to reach
    calls: float | None = None         # to reach
    service: str = "plain"   # what the server is started for; targets.py has their names
    file: tuple | None = None          # path and bytes of the file that is fetched
    told: tuple | None = None          # for the load program, where the name does not say it

    @property
    def words(self):
        """What the load program is told."""
        if self.told:
            return list(self.told)
        if not self.file:
            return ["--load", self.name]
        path, size = self.file
        return ["--load", "keep-alive", "--path", path, "--answer", size]


# The files that all servers have. Their bytes are ANSWER over and over, no multiple of a page.
FILES = {"4k": ("/assets/js/menu.js", 4 * 1024),
         "64k": ("/assets/js/main.js", 64 * 1024),
         "1m": ("/assets/js/full.js", 1024 * 1024)}
# This one is sparse.
LARGE_FILE = ("/assets/js/huge.js", 1024 * 1024 * 1024)

LOADS = {load.name: load for load in (
    Load("keep-alive", 20_000, (1000, 5000), 1000, ratio=1.18, instructions=5000, calls=2.0),
    Load("browser", 20_000, (1000, 5000), 1000, ratio=1.30),
    Load("pipelined", 100_000, (3200, 16_000), 4000, ratio=1.80),
    # Rounds of this size stay below the kernel's table of connections in TIME_WAIT.
    Load("connection", 3000, (300, 1500), 300, ratio=1.25),
    Load("tls", 20_000, (1000, 5000), 1000, ratio=1.20, service="tls"),
    Load("tls-handshake", 1000, (100, 300), 100, service="tls"),
    # A request is one mebibyte.
    Load("upload", 256, (16, 64), 16, service="upload"),
    Load("upload-chunked", 256, (16, 64), 16, service="upload"),
    Load("files-4k", 20_000, (1000, 5000), 1000, ratio=1.25, service="files", file=FILES["4k"]),
    Load("files-64k", 10_000, (500, 2500), 500, ratio=1.20, service="files", file=FILES["64k"]),
    Load("files-1m", 2000, (64, 256), 128, ratio=1.08, service="files", file=FILES["1m"]),
    # A request is one message; of a broadcast, one message that a session receives.
    Load("ws-16", 20_000, (1000, 5000), 1000, ratio=1.20, instructions=1500, service="websocket"),
    Load("ws-16x16", 100_000, (3200, 16_000), 4000, ratio=1.60, service="websocket"),
    Load("ws-16k", 10_000, (500, 2500), 500, ratio=1.25, service="websocket"),
    Load("ws-16k-text", 10_000, (500, 2500), 500, service="websocket"),
    Load("ws-broadcast", 50_000, (10_000, 50_000), 5000, service="broadcast"),
)}

IDLE_CONNECTIONS = 10_000


@dataclasses.dataclass(frozen=True)
class Idle:
    """Connections that are opened, used once and then left alone."""
    name: str
    warmup: str              # the load before, by name
    bytes: int               # to reach, per connection
    service: str = "plain"


IDLES = (Idle("idle", "keep-alive", 768), Idle("ws-idle", "ws-16", 768, "websocket"))

BROADCAST = LOADS["ws-broadcast"]
BROADCAST_SIZES = (64, 1024)   # bytes of the message

LARGE_UPLOAD_MEBIBYTES = 1024
LARGE_UPLOAD_GROWTH_MEBIBYTES = 8
LARGE_UPLOADS = {"length": "upload", "chunked": "upload-chunked"}

LARGE_FILE_CLIENTS = 64
LARGE_FILE_TAKEN_MEBIBYTES = 64
LARGE_FILE_GROWTH_MEBIBYTES = 2

# Behind the proxy stands upstream_server.cpp. Rounds are short for the reason of `connection`.
PROXY = Load("proxy", 3000, (300, 1500), 300, ratio=2.0, service="proxy",
             told=("--load", "keep-alive", "--path", "/small",
                   "--expect", (ANSWER * 1024)[:1024]))
PROXY_WAITING = 1000
PROXY_WAITING_SECONDS = 6
PROXY_UPLOAD_GROWTH_MEBIBYTES = 16
PROXIES = ("proxy", "proxy-waiting", "proxy-upload")

GROWTHS = ("growth-connections", "growth-routes", "growth-middlewares", "growth-fields",
           "growth-files")
CONNECTIONS = (1, 64, 1000, 10_000)
CONNECTIONS_GOAL = 1.05      # the last against the second: one connection alone is not busy
ROUTES = (1, 10, 100, 1000)
ROUTES_GOAL = 1.20           # the last against the first
MIDDLEWARES = (0, 1, 10)
MIDDLEWARES_GOAL = 100       # instructions of each that does nothing
FIELDS = (1, 10, 30, 90)
DIRECTORY_FILES = (10, 100_000)
DIRECTORY_FILES_GOAL = 1.10  # the last against the first

LOOPS = (1, 2)
FUTEX_GOAL = 0.0

# Everything that --load names, in the order of the tables.
NAMES = (*LOADS, "loops", *PROXIES, *GROWTHS, "upload-memory", "files-memory",
         "ws-broadcast-size", *(idle.name for idle in IDLES))
# What --quick leaves out unless it is named.
SLOW = ("proxy-upload", *GROWTHS, "upload-memory", "files-memory", "ws-broadcast-size")
