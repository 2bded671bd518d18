// The page of the chat: what others have written goes in as text, never as markup.
#pragma once

constexpr char kPage[] = R"html(<!DOCTYPE html>
<html lang="en">
<meta charset="utf-8">
<meta name="viewport" content="width=device-width">
<title>Chat</title>
<style>
  body { font: 1rem/1.5 sans-serif; max-width: 40rem; margin: 2rem auto; padding: 0 1rem; }
  ol { list-style: none; padding: 0; min-height: 10rem; overflow-wrap: anywhere; }
  form { display: flex; gap: .5rem; }
  [name=text] { flex: 1; }
</style>
<h1>Chat</h1>
<p id="state" role="status">Connecting</p>
<ol id="messages" aria-live="polite"></ol>
<form>
  <input name="name" placeholder="Name" aria-label="Name" size="10" maxlength="40">
  <input name="text" placeholder="Message" aria-label="Message" maxlength="1000" autocomplete="off">
  <button>Send</button>
</form>
<script>
  const form = document.querySelector("form");
  const state = document.querySelector("#state");
  const messages = document.querySelector("#messages");
  const address = new URL("chat", location.href);
  address.protocol = address.protocol.replace("http", "ws");
  const socket = new WebSocket(address);
  socket.onopen = () => { state.textContent = "Connected"; };
  socket.onclose = event => {
    state.textContent = `Disconnected (${event.code}${event.reason && ": " + event.reason})`;
  };
  socket.onmessage = event => {
    const line = document.createElement("li");
    line.textContent = event.data;
    messages.append(line);
    line.scrollIntoView();
  };
  form.onsubmit = event => {
    event.preventDefault();
    const { name, text } = form.elements;
    if (text.value === "" || socket.readyState !== WebSocket.OPEN) return;
    socket.send(`${name.value || "Somebody"}: ${text.value}`);
    text.value = "";
  };
</script>
</html>
)html";
