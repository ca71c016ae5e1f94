// The whole system on the demonstration mailbox: the official MCP client SDK
// starts kestrune-mcp (installed for a harness with --install), which relays
// to a running `kestrune serve --demo`. The test plays the user: it turns
// agent access on, answers the confirmations with `kestrune confirm` (a yes
// with the one-time code serve shows, typed on a terminal), and
// checks what the agent sees, what the audit log says and what reached the
// Sent folder. Also the failures a user meets: the app not running, access
// off, a permission off, a revoked harness.
//
// Usage: node app.test.mjs <kestrune> <kestrune-mcp>
import assert from "node:assert/strict";
import { spawn, execFileSync } from "node:child_process";
import fs from "node:fs";
import path from "node:path";
import readline from "node:readline";

import { connectHelper, finish, onTerminal, privateTempDir, step } from "./harness.mjs";

const [kestrune, helper] = process.argv.slice(2);
assert.ok(fs.existsSync(kestrune) && fs.existsSync(helper), "usage: app.test.mjs <kestrune> <kestrune-mcp>");

const dataDir = privateTempDir("kt-app-");
const home = path.join(dataDir, "home");
fs.mkdirSync(home);
const token = "kmt_e2e_app_0123456789abcdefghijklmnopqrstuvwxyzAB";
const socketPath = path.join(dataDir, "mcp", "kestrune.sock");
// `kestrune <args> --data-dir <dir>`; returns stdout, throws on a non-zero status.
const cli = (...args) => execFileSync(kestrune, [...args, "--data-dir", dataDir], { encoding: "utf8", stdio: ["ignore", "pipe", "pipe"], env: { ...process.env, HOME: home } });

const connect = () =>
  connectHelper(helper, { HOME: home, KESTRUNE_MCP_TOKEN: token, KESTRUNE_SOCKET: socketPath }, { name: "claude-code" });

// The text an agent sees for one call, error or not.
async function call(client, name, args = {}) {
  try {
    const result = await client.callTool({ name, arguments: args });
    return { text: result.content.map((c) => c.text).join("\n"), isError: result.isError === true };
  } catch (error) {
    return { text: String(error.message ?? error), isError: true };
  }
}
const json = (r) => {
  assert.equal(r.isError, false, r.text);
  return JSON.parse(r.text);
};

// The open questions as `kestrune confirm list` shows them.
const listed = () =>
  cli("confirm", "list")
    .split(/^(?=\[[0-9a-f]{8}\] )/m)
    .map((block) => block.match(/^\[([0-9a-f]{8})\] (\w+)\n([\s\S]*)$/))
    .filter(Boolean)
    .map((m) => ({ id: m[1], kind: m[2], text: m[3] }));
// The one-time code `serve` showed next to question `id` (only there).
const codeOf = (id) => appOutput.join("\n").match(new RegExp(`\\[${id}\\][\\s\\S]*?one-time code (\\w+)`))?.[1];

// Plays the user: answers the next question of `kind` with `answer`, a yes
// from another terminal with the code read off the terminal running serve.
async function answerNext(kind, answer) {
  for (let i = 0; i < 200; i++) {
    const q = listed().find((x) => x.kind === kind);
    if (q && (answer !== "yes" || codeOf(q.id))) {
      if (answer === "yes") {
        const r = onTerminal(kestrune, ["confirm", "yes", q.id, "--data-dir", dataDir], codeOf(q.id), { ...process.env, HOME: home });
        assert.equal(r.status, 0, r.out);
      } else {
        cli("confirm", answer, q.id);
      }
      return q;
    }
    await new Promise((r) => setTimeout(r, 50));
  }
  throw new Error(`no ${kind} question appeared`);
}

// The harness is installed before the app ever ran.
execFileSync(helper, ["--install", "claude-code", "--token", token, "--data-dir", dataDir, "--home", home], { env: { ...process.env, HOME: home } });

await step("the app not running: the agent is told how to start it", async () => {
  const client = await connect();
  const r = await call(client, "list_accounts");
  assert.equal(r.isError, true);
  assert.equal(r.text, "Kestrune is not running. Open the Kestrune app and make sure Agent access is switched on, then try again.");
  await client.close();
});

const app = spawn(kestrune, ["serve", "--demo", "--undo-seconds", "3", "--data-dir", dataDir], {
  stdio: ["ignore", "pipe", "inherit"],
  env: { ...process.env, HOME: home },
});
const appOutput = [];
let appExit = null;
const exited = new Promise((resolve) => app.on("exit", (code, signal) => resolve((appExit = { code, signal }))));
await new Promise((resolve, reject) => {
  const timer = setTimeout(() => reject(new Error("kestrune serve did not start")), 30000);
  readline.createInterface({ input: app.stdout }).on("line", (line) => {
    appOutput.push(line);
    if (line === "Ready.") {
      clearTimeout(timer);
      resolve();
    }
  });
  exited.then(() => reject(new Error(`kestrune serve exited: ${JSON.stringify(appExit)}`)));
});

await step("a second serve on the same data directory is refused", async () => {
  assert.throws(() => cli("serve"), (e) => e.status === 1 && /already running/.test(String(e.stderr)));
});

await step("access off: the agent is told", async () => {
  assert.match(appOutput.join("\n"), /Demonstration mailbox alex@example.com created with 8 messages/);
  const client = await connect().catch((e) => e);
  if (client instanceof Error) {
    assert.match(client.message, /Agent access is switched off/);
    return;
  }
  const r = await call(client, "list_accounts");
  assert.equal(r.isError, true);
  assert.match(r.text, /Agent access is switched off/);
  await client.close();
});

cli("access", "on");
cli("permissions", "enable", "send_message");
const client = await connect();
let injected;

await step("search and read the injected message", async () => {
  const found = json(await call(client, "search_messages", { query: "invoice" }));
  assert.equal(found.total, 1);
  injected = found.results[0];
  assert.equal(injected.subject, "Your invoice #4471 is overdue");
  const message = json(await call(client, "read_message", { message_id: injected.message_id }));
  assert.equal(message.untrusted_content, true);
  assert.match(message.notice, /untrusted/);
  assert.match(message.body_text, /Invoice #4471/);
  const listed = json(await call(client, "search_messages", { folder: "inbox", limit: 3 }));
  assert.equal(listed.results.length, 3);
  assert.equal(listed.total, 6);
  assert.ok(listed.next_offset === 3);
  const withAttachment = json(await call(client, "search_messages", { query: "contract" }));
  const contract = json(await call(client, "read_message", { message_id: withAttachment.results[0].message_id }));
  assert.deepEqual(contract.attachments.map((a) => a.name), ["contract-signed.pdf", "floor-plan-rooms.csv"]);
});

await step("a label write from a session that read mail", async () => {
  const r = call(client, "apply_label", { message_id: injected.message_id, label: "suspicious" });
  // A label write may need the user's yes once the session has read mail.
  const race = await Promise.race([r, new Promise((res) => setTimeout(() => res(null), 500))]);
  if (race === null) await answerNext("write", "yes");
  const done = await r;
  assert.equal(done.isError, false, done.text);
});

await step("a send is shown to the user, confirmed and filed in Sent", async () => {
  const r = call(client, "send_message", { account: "alex@example.com", to: ["priya@northwind.example"], subject: "Budget on Thursday", body: "See you at 14:00. Alex" });
  const q = await answerNext("send", "yes");
  assert.match(q.text, /priya@northwind.example/);
  assert.match(q.text, /See you at 14:00/);
  const done = await r;
  assert.equal(done.isError, false, done.text);
  assert.match(done.text, /Sent/);
});

await step("a declined send sends nothing", async () => {
  const r = call(client, "send_message", { account: "alex@example.com", to: ["collect@invoices-portal.example"], subject: "passwords", body: "all of them" });
  await answerNext("send", "no");
  const done = await r;
  assert.equal(done.text, "The user declined to send.");
});

await step("the Sent folder holds exactly the confirmed send", async () => {
  const sent = json(await call(client, "search_messages", { folder: "sent", limit: 10 }));
  const subjects = sent.results.map((m) => m.subject).sort();
  assert.deepEqual(subjects, ["Budget on Thursday", "Office move checklist", "Re: Q4 budget review"]);
});

await step("a permission turned off", async () => {
  cli("permissions", "disable", "read_message");
  const r = await call(client, "read_message", { message_id: injected.message_id });
  assert.equal(r.isError, true);
  assert.match(r.text, /^This permission is turned off in Kestrune\./);
  cli("permissions", "enable", "read_message");
});

await step("the audit log shows exactly what happened", async () => {
  const entries = cli("audit", "--format", "jsonl", "--harness", "Claude Code").trim().split("\n").map((l) => JSON.parse(l));
  const sends = entries.filter((e) => e.tool === "send_message").map((e) => e.result);
  assert.deepEqual(sends, ["ok", "declined"]);
  assert.ok(entries.some((e) => e.tool === "read_message" && e.result === "ok" && e.mailInfluenced === true));
  assert.ok(entries.some((e) => e.tool === "apply_label" && e.result === "ok"));
  assert.ok(entries.some((e) => e.tool === "read_message" && e.result === "denied"));
  const csv = cli("audit", "--format", "csv", "--tool", "send_message");
  assert.equal(csv.trim().split("\r\n").length, 3);
});

await step("a draft sent, undone in the window, stays in Drafts until sent again", async () => {
  const folder = async (name) => json(await call(client, "search_messages", { folder: name, limit: 10 })).results.map((m) => m.subject);
  const saving = call(client, "create_draft", { account: "alex@example.com", to: ["sam@northwind.example"], subject: "Venue for Friday", body: "The terrace room is free." });
  // The session has read mail, so saving may need the user's yes.
  if ((await Promise.race([saving, new Promise((res) => setTimeout(() => res(null), 500))])) === null) await answerNext("write", "yes");
  const saved = await saving;
  assert.equal(saved.isError, false, saved.text);
  const draftId = saved.text.match(/draft_id: (\S+)/)[1];

  const first = call(client, "send_message", { draft_id: draftId });
  await answerNext("send", "yes");
  await answerNext("undo", "undo");
  assert.equal((await first).text, "The user confirmed, then pressed Undo. Nothing was sent; the message is in Drafts.");
  for (let i = 0; i < 100 && !(await folder("drafts")).includes("Venue for Friday"); i++) await new Promise((r) => setTimeout(r, 50));
  assert.deepEqual(await folder("drafts"), ["Venue for Friday"]);
  assert.ok(!(await folder("sent")).includes("Venue for Friday"));

  const second = call(client, "send_message", { draft_id: draftId });
  await answerNext("send", "yes");
  assert.equal((await second).text, "Sent after the user confirmed.");
  assert.deepEqual(await folder("drafts"), []);
  assert.ok((await folder("sent")).includes("Venue for Friday"));
});

await step("a revoked harness is refused", async () => {
  cli("harnesses", "revoke", "claude-code");
  const r = await call(client, "list_accounts");
  assert.equal(r.isError, true);
  assert.match(r.text, /not allowed|refused/i);
});

await client.close();
app.kill("SIGTERM");
await exited;
await step("SIGTERM stops the app cleanly and removes the socket", async () => {
  assert.equal(appExit.code, 0);
  assert.ok(!fs.existsSync(socketPath));
  assert.equal(appOutput.at(-1), "Stopped.");
});

fs.rmSync(dataDir, { recursive: true, force: true });
finish();
