"""A fake mail provider's web side for tests, on 127.0.0.1 over HTTPS:
autoconfiguration documents and an OAuth 2.0 authorization server with PKCE.

    python3 fake_provider.py CERT KEY

Prints the port it listens on, then serves until killed.
  GET  /.well-known/autoconfig/mail/config-v1.1.xml   the autoconfig document
  GET  /missing/config-v1.1.xml                        404
  GET  /authorize?...   checks the request, redirects to redirect_uri with code and state
  POST /token           authorization_code (checks the PKCE verifier) or refresh_token
  POST /revoke          revokes every refresh token issued so far
  GET  /validate        token validation for a mail server (Bearer token in Authorization)
"""
import base64, hashlib, http.server, json, secrets, ssl, sys, urllib.parse

CLIENT = "test-client"
codes = {}       # code -> (challenge, redirect_uri)
refresh = {}     # refresh token -> True while valid
access = {}      # access token -> login
issued = [0]

AUTOCONFIG = """<?xml version="1.0"?>
<clientConfig version="1.1">
  <emailProvider id="autoconf.test">
    <domain>autoconf.test</domain>
    <incomingServer type="pop3"><hostname>pop.autoconf.test</hostname><port>995</port>
      <socketType>SSL</socketType></incomingServer>
    <incomingServer type="imap"><hostname>plain.autoconf.test</hostname><port>143</port>
      <socketType>plain</socketType></incomingServer>
    <incomingServer type="imap"><hostname>imap.autoconf.test</hostname><port>993</port>
      <socketType>SSL</socketType><username>%EMAILLOCALPART%</username>
      <authentication>password-cleartext</authentication></incomingServer>
    <outgoingServer type="smtp"><hostname>smtp.autoconf.test</hostname><port>587</port>
      <socketType>STARTTLS</socketType><username>%EMAILADDRESS%</username></outgoingServer>
  </emailProvider>
</clientConfig>
"""


def tokens(login):
    issued[0] += 1
    a = "at-%d" % issued[0]
    access[a] = login
    return a


class Handler(http.server.BaseHTTPRequestHandler):
    def log_message(self, *args):
        pass

    def reply(self, status, body, kind="application/json", headers=()):
        data = body.encode()
        self.send_response(status)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(data)))
        for k, v in headers:
            self.send_header(k, v)
        self.end_headers()
        self.wfile.write(data)

    def do_GET(self):
        url = urllib.parse.urlparse(self.path)
        q = dict(urllib.parse.parse_qsl(url.query))
        if url.path == "/.well-known/autoconfig/mail/config-v1.1.xml":
            return self.reply(200, AUTOCONFIG, "text/xml")
        if url.path == "/authorize":
            if (q.get("client_id") != CLIENT or q.get("response_type") != "code"
                    or q.get("code_challenge_method") != "S256"
                    or not q.get("redirect_uri", "").startswith("http://127.0.0.1:")):
                return self.reply(400, '{"error":"invalid_request"}')
            code = secrets.token_urlsafe(12)
            codes[code] = (q["code_challenge"], q["redirect_uri"], q.get("login_hint", ""))
            target = q["redirect_uri"] + "?" + urllib.parse.urlencode(
                {"code": code, "state": q.get("state", "")})
            return self.reply(302, "", "text/plain", [("Location", target)])
        if url.path == "/validate":
            token = self.headers.get("Authorization", "").removeprefix("Bearer ")
            if token in access:
                return self.reply(200, json.dumps({"active": True, "username": access[token]}))
            return self.reply(401, '{"active": false}')
        return self.reply(404, "not found", "text/plain")

    def do_POST(self):
        length = int(self.headers.get("Content-Length", "0"))
        form = dict(urllib.parse.parse_qsl(self.rfile.read(length).decode()))
        if self.path == "/revoke":
            for t in refresh:
                refresh[t] = False
            return self.reply(200, "{}")
        if self.path != "/token" or form.get("client_id") != CLIENT:
            return self.reply(400, '{"error":"invalid_client"}')
        if form.get("grant_type") == "authorization_code":
            entry = codes.pop(form.get("code", ""), None)
            verifier = form.get("code_verifier", "").encode()
            challenge = base64.urlsafe_b64encode(hashlib.sha256(verifier).digest()).rstrip(b"=")
            if (entry is None or entry[0].encode() != challenge
                    or entry[1] != form.get("redirect_uri")):
                return self.reply(400, '{"error":"invalid_grant"}')
            r = "rt-" + secrets.token_urlsafe(8)
            refresh[r] = entry[2]
            return self.reply(200, json.dumps({"access_token": tokens(entry[2]), "token_type":
                                               "Bearer", "expires_in": 3600, "refresh_token": r}))
        if form.get("grant_type") == "refresh_token":
            login = refresh.get(form.get("refresh_token", ""))
            if not login:
                return self.reply(400, '{"error":"invalid_grant"}')
            return self.reply(200, json.dumps({"access_token": tokens(login), "token_type":
                                               "Bearer", "expires_in": 3600}))
        return self.reply(400, '{"error":"unsupported_grant_type"}')


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(sys.argv[1], sys.argv[2])
server.socket = context.wrap_socket(server.socket, server_side=True)
print(server.server_address[1], flush=True)
server.serve_forever()
