// The other end, made of Debian's node-ws.
//   ws_peer.js client URL     talks to an echo server, and fails when it hears something else
//   ws_peer.js server         echoes; prints its port first
"use strict";
const assert = require("assert");
const { once } = require("events");
const WebSocket = require("ws");

const SIZES = [0, 1, 125, 126, 65535, 65536, 1000000];

async function connect(url) {
  const socket = new WebSocket(url, ["chat", "superchat"], { rejectUnauthorized: false });
  const messages = [];
  socket.on("message", (data, isBinary) => {
    messages.push(isBinary ? data : data.toString());
    socket.emit("one");
  });
  socket.next = async () => {
    while (messages.length === 0) await once(socket, "one");
    return messages.shift();
  };
  await once(socket, "open");
  return socket;
}

async function client(url) {
  let socket = await connect(url);
  assert.strictEqual(socket.protocol, "chat");
  for (const size of SIZES) {
    for (const message of ["ä".repeat(size), Buffer.alloc(size, 255)]) {
      socket.send(message);
      assert.deepStrictEqual(await socket.next(), message);
    }
  }
  for (let i = 0; i < 1000; ++i) socket.send(String(i));
  for (let i = 0; i < 1000; ++i) assert.strictEqual(await socket.next(), String(i));
  socket.ping("ping");
  assert.strictEqual(String((await once(socket, "pong"))[0]), "ping");
  socket.close(4321, "enough");
  assert.deepStrictEqual((await once(socket, "close")).map(String), ["4321", "enough"]);

  socket = await connect(url);
  socket.send("in ", { fin: false });
  socket.send("pieces", { fin: true });
  assert.deepStrictEqual((await once(socket, "close")).map(String),
                         ["1002", "Unexpected opcode: 0"]);
}

function server() {
  const listening = new WebSocket.WebSocketServer({
    host: "127.0.0.1", port: 0, handleProtocols: () => "superchat",
  });
  listening.on("listening", () => console.log(listening.address().port));
  listening.on("connection", (socket, request) => {
    socket.on("error", () => {});
    socket.on("pong", () => socket.send("pong"));
    socket.on("message", (data, isBinary) => {
      const text = data.toString();
      if (text === "bytes") socket.send(Buffer.from([0, 255, 0x7a]));
      else if (text === "pieces") {
        socket.send("in ", { fin: false });
        socket.send("pieces", { fin: true });
      } else if (text === "ping") socket.ping("x".repeat(125));
      else if (text === "headers") socket.send(`${request.headers["x-test"]} ${socket.protocol}`);
      else if (text === "close") socket.close(4321, "enough");
      else socket.send(data, { binary: isBinary });
    });
  });
}

if (process.argv[2] === "server") {
  server();
} else {
  client(process.argv[3]).then(() => process.exit(0), error => {
    console.error(error);
    process.exit(1);
  });
}
