// Drives the built kestrune-mcp with the official MCP client SDK, the way a
// harness does: spawn over stdio, initialize, list tools, call a tool.
// The Kestrune app is played by a small line-frame server on a Unix socket.
//
// Usage: node mcp-client.test.mjs <path to kestrune-mcp>
import assert from "node:assert/strict";
import fs from "node:fs";
import net from "node:net";
import path from "node:path";

import { connectHelper, finish, privateTempDir, step } from "./harness.mjs";

const helper = process.argv[2];
assert.ok(helper && fs.existsSync(helper), `kestrune-mcp not found at ${helper}`);

const notRunning =
  "Kestrune is not running. Open the Kestrune app and make sure Agent access is switched on, then try again.";

// A stand-in for the app: one JSON object per line each way, one request per
// connection, every request recorded.
function startFakeApp(socketPath) {
  const requests = [];
  const server = net.createServer((conn) => {
    let buffer = "";
    conn.on("data", (chunk) => {
      buffer += chunk.toString("utf8");
      let lf;
      while ((lf = buffer.indexOf("\n")) >= 0) {
        const line = buffer.slice(0, lf);
        buffer = buffer.slice(lf + 1);
        if (!line) continue;
        const request = JSON.parse(line);
        requests.push(request);
        conn.write(JSON.stringify(answer(request)) + "\n");
      }
    });
    conn.on("error", () => {});
  });
  const answer = (request) => {
    if (request.token !== "e2e-token") return { ok: false, code: "refused", error: "Unknown or revoked token" };
    switch (request.op) {
      case "hello":
        return { ok: true, greeting: "connected as E2E" };
      case "tools_list":
        return {
          ok: true,
          tools: [
            {
              name: "list_accounts",
              title: "List accounts",
              description: "List the mail accounts available to you.",
              inputSchema: { type: "object", additionalProperties: false, properties: {} },
              annotations: { readOnlyHint: true, destructiveHint: false, idempotentHint: true, openWorldHint: false },
            },
          ],
        };
      case "call":
        return {
          ok: true,
          text: JSON.stringify({ tool: request.name, arguments: request.arguments, client: request.client }),
          isError: false,
        };
      case "bye":
        return { ok: true };
      default:
        return { ok: false, code: "bad_request", error: "Unknown operation." };
    }
  };
  return new Promise((resolve) => server.listen(socketPath, () => resolve({ server, requests })));
}

const tmp = privateTempDir("kt-e2e-");
const connect = (env) => connectHelper(helper, env, { stderr: "pipe" });

await step("with the app running: handshake, app's tool list, a relayed call", async () => {
  const socketPath = path.join(tmp, "app.sock");
  const app = await startFakeApp(socketPath);
  const client = await connect({
    HOME: tmp,
    KESTRUNE_MCP_TOKEN: "e2e-token",
    KESTRUNE_SOCKET: socketPath,
  });
  try {
    assert.deepEqual(client.getServerVersion(), { name: "kestrune", title: "Kestrune Mail", version: "0.1.0" });
    assert.deepEqual(client.getServerCapabilities(), { tools: { listChanged: false } });
    assert.match(client.getInstructions() ?? "", /untrusted data/);

    const { tools } = await client.listTools();
    assert.deepEqual(tools.map((t) => t.name), ["list_accounts"]);
    assert.equal(tools[0].annotations.readOnlyHint, true);

    const result = await client.callTool({ name: "search_messages", arguments: { query: "invoice", limit: 5 } });
    assert.equal(result.isError, false);
    assert.equal(result.content.length, 1);
    assert.equal(result.content[0].type, "text");
    const relayed = JSON.parse(result.content[0].text);
    assert.deepEqual(relayed, {
      tool: "search_messages",
      arguments: { query: "invoice", limit: 5 },
      client: { name: "kestrune-e2e", version: "1.0.0" },
    });

    const hello = app.requests.find((r) => r.op === "hello");
    assert.equal(hello.v, 1);
    assert.match(hello.session, /^[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}$/);
    const call = app.requests.find((r) => r.op === "call");
    assert.equal(call.session, hello.session);
  } finally {
    await client.close();
    app.server.close();
  }
  assert.equal(client.stderrText(), "");
});

await step("without the app: static catalog and the not-running result", async () => {
  const client = await connect({
    HOME: tmp,
    KESTRUNE_MCP_TOKEN: "e2e-token",
    KESTRUNE_SOCKET: path.join(tmp, "absent.sock"),
  });
  try {
    const { tools } = await client.listTools();
    assert.deepEqual(tools.map((t) => t.name), [
      "list_accounts", "list_folders", "search_messages", "read_message", "mark_read", "create_draft",
      "apply_label", "send_message", "create_workflow", "list_workflows", "update_workflow",
      "pause_workflow", "delete_workflow", "preview_workflow",
    ]);
    for (const tool of tools) {
      assert.equal(tool.inputSchema.type, "object", tool.name);
      assert.equal(typeof tool.title, "string", tool.name);
      for (const hint of ["readOnlyHint", "destructiveHint", "idempotentHint", "openWorldHint"]) {
        assert.equal(typeof tool.annotations[hint], "boolean", `${tool.name} ${hint}`);
      }
    }
    const send = tools.find((t) => t.name === "send_message");
    assert.deepEqual(send.annotations, { readOnlyHint: false, destructiveHint: true, idempotentHint: false, openWorldHint: true });

    const result = await client.callTool({ name: "list_accounts", arguments: {} });
    assert.equal(result.isError, true);
    assert.deepEqual(result.content, [{ type: "text", text: notRunning }]);

    await client.ping();
  } finally {
    await client.close();
  }
});

fs.rmSync(tmp, { recursive: true, force: true });
finish();
