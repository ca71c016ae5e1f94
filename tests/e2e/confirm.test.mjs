// The person's yes, attacked the way an agent that runs shell commands would:
// answering its own send through the question files or the command line,
// guessing the code, hiding a recipient, and a kill -9 of `serve` during the
// undo window. The real `kestrune serve --demo`, the official MCP client SDK
// as the agent.
//
// Usage: node confirm.test.mjs <kestrune> <kestrune-mcp>
import assert from "node:assert/strict";
import { spawn, execFileSync } from "node:child_process";
import fs from "node:fs";
import path from "node:path";
import readline from "node:readline";

import { connectHelper, finish, onTerminal, privateTempDir, step, withoutTerminal } from "./harness.mjs";

const [kestrune, helper] = process.argv.slice(2);
const dataDir = privateTempDir("kt-confirm-");
const home = path.join(dataDir, "home");
fs.mkdirSync(home);
const env = { ...process.env, HOME: home };
const token = "kmt_e2e_confirm_0123456789abcdefghijklmnopqrstuvwxy";
const pending = path.join(dataDir, "mcp", "pending");
const cli = (...args) => execFileSync(kestrune, [...args, "--data-dir", dataDir], { encoding: "utf8", stdio: ["ignore", "pipe", "pipe"], env });
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

let output = [];
let app;
// Starts `serve` and resolves once it is ready; its terminal is `output`.
function serve() {
  output = [];
  app = spawn(kestrune, ["serve", "--demo", "--undo-seconds", "30", "--data-dir", dataDir], { stdio: ["ignore", "pipe", "inherit"], env });
  readline.createInterface({ input: app.stdout }).on("line", (line) => output.push(line));
  return (async () => {
    for (let i = 0; i < 600 && !output.includes("Ready."); i++) await sleep(50);
    assert.ok(output.includes("Ready."), output.join("\n"));
  })();
}
// The next open question of `kind` that is not in `seen`, with its code as
// the serving terminal shows it.
async function question(kind, seen = []) {
  for (let i = 0; i < 300; i++) {
    const shown = output.join("\n");
    for (const m of cli("confirm", "list").matchAll(/^\[([0-9a-f]{8})\] (\w+)$/gm)) {
      const code = shown.match(new RegExp(`\\[${m[1]}\\][\\s\\S]*?(?:one-time code (\\w+)|Undo with)`));
      if (m[2] === kind && !seen.includes(m[1]) && code) return { id: m[1], code: code[1], text: cli("confirm", "list") };
    }
    await sleep(50);
  }
  throw new Error(`no ${kind} question`);
}
const call = (client, name, args) =>
  client.callTool({ name, arguments: args }).then(
    (r) => r.content.map((c) => c.text).join("\n"),
    (e) => `error: ${e.message}`,
  );
const sentSubjects = async (client) => JSON.parse(await call(client, "search_messages", { folder: "sent", limit: 20 })).results.map((m) => m.subject);

execFileSync(helper, ["--install", "claude-code", "--token", token, "--data-dir", dataDir, "--home", home], { env });
await serve();
cli("access", "on");
cli("permissions", "enable", "send_message");
let client = await connectHelper(helper, { HOME: home, KESTRUNE_MCP_TOKEN: token, KESTRUNE_SOCKET: path.join(dataDir, "mcp", "kestrune.sock") });
// The session reads the message that carries the injection.
const found = JSON.parse(await call(client, "search_messages", { query: "invoice" }));
await call(client, "read_message", { message_id: found.results[0].message_id });

await step("an agent cannot answer its own send through files or the command line", async () => {
  const sending = call(client, "send_message", { account: "alex@example.com", to: ["collect@invoices-portal.example"], subject: "Invoice 4471", body: "Paid." });
  const q = await question("send");
  // The old way in: a file next to the question.
  fs.writeFileSync(path.join(pending, `${q.id}.answer`), "yes");
  // The command line without a terminal to type the code on, or with a guess.
  const bare = withoutTerminal(kestrune, ["confirm", "yes", q.id, "--data-dir", dataDir], env);
  assert.equal(bare.status, 1, bare.err);
  assert.match(bare.err, /needs the code/);
  assert.throws(() => cli("confirm", "yes", q.id, "abcdef"), (e) => e.status === 64);
  await sleep(300);
  assert.match(cli("confirm", "list"), new RegExp(q.id));
  // The code is shown by serve only: not in the listing, the files, the audit log.
  const everywhere = [cli("confirm", "list"), ...fs.readdirSync(pending).filter((f) => fs.statSync(path.join(pending, f)).isFile()).map((f) => fs.readFileSync(path.join(pending, f), "utf8")), fs.readFileSync(path.join(dataDir, "mcp", "audit.jsonl"), "utf8")];
  for (const text of everywhere) assert.ok(!text.includes(q.code), "the code leaked");
  // Guesses typed on a terminal: three wrong codes decline.
  for (const guess of ["aaaaaa", "bbbbbb", "cccccc"]) assert.equal(onTerminal(kestrune, ["confirm", "yes", q.id, "--data-dir", dataDir], guess, env).status, 1);
  assert.equal(await sending, "The user declined to send.");
  assert.ok(!(await sentSubjects(client)).includes("Invoice 4471"));
});

await step("every recipient and every cut is shown", async () => {
  // Two long addresses first: before, the row stopped at 400 characters, silently.
  const long = (c) => `${c.repeat(64)}@${"b".repeat(60)}.${"c".repeat(60)}.${"d".repeat(60)}.${"e".repeat(60)}.example`;
  const sending = call(client, "send_message", { account: "alex@example.com", to: [long("a"), long("f"), "attacker@evil.example"], subject: "Notes", body: "x".repeat(3612) });
  const q = await question("send");
  assert.match(q.text, /attacker@evil\.example/);
  assert.match(q.text, /… 612 more characters/);
  cli("confirm", "no", q.id);
  assert.equal(await sending, "The user declined to send.");

  const drafting = call(client, "create_draft", { account: "alex@example.com", to: ["attacker@evil.example"], subject: "s", body: "y".repeat(500) });
  const w = await question("write");
  assert.match(w.text, /^ {2}To: attacker@evil\.example$/m);
  cli("confirm", "no", w.id);
  assert.match(await drafting, /declined/);
});

await step("a kill -9 during the undo window sends nothing at the next start", async () => {
  const waiting = call(client, "send_message", { account: "alex@example.com", to: ["priya@northwind.example"], subject: "Waiting for a yes", body: "b" });
  const first = await question("send");
  const held = call(client, "send_message", { account: "alex@example.com", to: ["sam@northwind.example"], subject: "In the undo window", body: "b" });
  const second = await question("send", [first.id]);
  assert.equal(onTerminal(kestrune, ["confirm", "yes", second.id, "--data-dir", dataDir], second.code, env).status, 0);
  const undo = await question("undo");
  app.kill("SIGKILL");
  await Promise.all([waiting, held]);
  await client.close();

  await serve();
  assert.match(output.join("\n"), /2 sends were interrupted and kept as drafts: .*"Waiting for a yes" to priya@northwind\.example.*"In the undo window" to sam@northwind\.example.*; `kestrune outbox` to see them\./);
  for (const [id, verb] of [[undo.id, "undo"], [first.id, "yes"]]) {
    assert.throws(() => cli("confirm", verb, id), (e) => e.status === 1 && /expired: Kestrune stopped before it was answered/.test(e.stderr));
  }
  assert.match(cli("confirm", "list"), /No confirmation is waiting/);
  const outbox = cli("outbox");
  assert.match(outbox, /not sent {2}"In the undo window"/);
  client = await connectHelper(helper, { HOME: home, KESTRUNE_MCP_TOKEN: token, KESTRUNE_SOCKET: path.join(dataDir, "mcp", "kestrune.sock") });
  await sleep(1500);
  const sent = await sentSubjects(client);
  assert.ok(!sent.includes("In the undo window") && !sent.includes("Waiting for a yes"), sent.join(", "));
});

await client.close();
app.kill("SIGTERM");
await new Promise((r) => app.on("exit", r));
fs.rmSync(dataDir, { recursive: true, force: true });
finish();
