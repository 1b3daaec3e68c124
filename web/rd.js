// Vexo RD service test page: discovery, DEVICEINFO, CAPTURE and POSTAUTH
// against the RD services on this computer. Plain browser JavaScript with no
// dependencies. Every text that comes from a service is shown with
// textContent, never inserted as HTML. Captured PidData stays in this page.
"use strict";

const $ = (id) => document.getElementById(id);

let services = [];   // {base, scheme, port, status, info, interfaces: {id: path}}
let chosen = null;

// ------------------------------------------------------------------ helpers

function hostForUrl(host) {
  host = host.trim();
  return host.includes(":") && !host.startsWith("[") ? "[" + host + "]" : host;
}

function el(tag, text, attrs) {
  const e = document.createElement(tag);
  if (text !== undefined && text !== null) e.textContent = String(text);
  for (const [k, v] of Object.entries(attrs || {})) e.setAttribute(k, v);
  return e;
}

function parseXml(text) {
  const doc = new DOMParser().parseFromString(text, "application/xml");
  return doc.getElementsByTagName("parsererror").length ? null : doc;
}

// Attributes of the first <name ...> element in text, for answers that are not
// well-formed XML (the errCode 100 answer leaves Resp unclosed).
function attributesByScan(text, name) {
  const m = new RegExp("<" + name + "\\b([^>]*)").exec(text);
  const out = {};
  if (!m) return out;
  const re = /([A-Za-z_][\w.-]*)\s*=\s*"([^"]*)"/g;
  let a;
  while ((a = re.exec(m[1])) !== null) out[a[1]] = a[2];
  return out;
}

function attributes(node) {
  const out = {};
  if (node) for (const a of node.attributes) out[a.name] = a.value;
  return out;
}

// fetch with a custom verb and a time-out; resolves to {status, text, ms}.
async function rdFetch(url, method, body, timeoutMs) {
  const controller = new AbortController();
  const timer = setTimeout(() => controller.abort(), timeoutMs);
  const started = performance.now();
  try {
    const init = {method, signal: controller.signal, cache: "no-store"};
    if (body !== undefined) {
      init.body = body;
      init.headers = {"Content-Type": "text/xml"};
    }
    const response = await fetch(url, init);
    const text = await response.text();
    return {status: response.status, text, ms: Math.round(performance.now() - started)};
  } finally {
    clearTimeout(timer);
  }
}

// ---------------------------------------------------------------- discovery

async function probe(scheme, host, port, timeoutMs) {
  const base = scheme + "://" + host + ":" + port;
  try {
    const r = await rdFetch(base + "/", "RDSERVICE", undefined, timeoutMs);
    const doc = parseXml(r.text);
    const root = doc && doc.documentElement;
    if (r.status !== 200 || !root || root.nodeName !== "RDService") return null;
    const interfaces = {};
    for (const i of root.getElementsByTagName("Interface")) {
      const id = i.getAttribute("id");
      const path = i.getAttribute("path");
      if (id && path) interfaces[id] = path;
    }
    return {base, scheme, port, status: root.getAttribute("status") || "", info: root.getAttribute("info") || "",
            interfaces, raw: r.text};
  } catch (e) {
    return null;  // closed port, refused TLS, wrong scheme or time-out
  }
}

async function scan() {
  const host = hostForUrl($("host").value);
  const first = parseInt($("port-first").value, 10);
  const last = parseInt($("port-last").value, 10);
  const timeoutMs = parseInt($("scan-timeout").value, 10) || 2000;
  const schemes = [];
  if ($("scheme-http").checked) schemes.push("http");
  if ($("scheme-https").checked) schemes.push("https");
  $("scan").disabled = true;
  $("scan-status").textContent = "Scanning...";
  $("scan-status").className = "status";
  const started = performance.now();
  const probes = [];
  for (let port = first; port <= last && port - first < 100; ++port) {
    for (const scheme of schemes) probes.push(probe(scheme, host, port, timeoutMs));
  }
  const found = (await Promise.all(probes)).filter((s) => s !== null);
  found.sort((a, b) => a.port - b.port || a.scheme.localeCompare(b.scheme));
  services = found;
  showServices();
  const seconds = ((performance.now() - started) / 1000).toFixed(1);
  $("scan-status").textContent = "Scan done in " + seconds + " s: " + found.length + " service" +
      (found.length === 1 ? "" : "s") + " found on " + probes.length + " addresses.";
  $("scan-status").className = "status " + (found.length ? "ok" : "bad");
  $("scan").disabled = false;
  if (found.length && !chosen) choose(found[0]);
}

function showServices() {
  const body = $("services").tBodies[0];
  body.replaceChildren();
  services.forEach((s, index) => {
    const tr = el("tr", null, {"data-base": s.base});
    const pick = el("input", null, {type: "radio", name: "service", "data-index": String(index)});
    pick.checked = chosen !== null && chosen.base === s.base;
    pick.addEventListener("change", () => choose(s));
    const td = el("td");
    td.appendChild(pick);
    tr.appendChild(td);
    tr.appendChild(el("td", s.base));
    const status = s.status.replace(/"/g, "");
    const st = el("td", status);
    if (["READY", "USED", "NOTREADY"].includes(status)) st.className = status;
    tr.appendChild(st);
    tr.appendChild(el("td", s.info));
    tr.appendChild(el("td", Object.entries(s.interfaces).map(([id, p]) => id + " " + p).join(", ")));
    body.appendChild(tr);
  });
}

function choose(service) {
  chosen = service;
  $("chosen").textContent = service.base;
  $("deviceinfo").disabled = !service.interfaces.DEVICEINFO;
  $("capture").disabled = !service.interfaces.CAPTURE;
  $("postauth").hidden = !service.interfaces.POSTAUTH;
  for (const radio of document.querySelectorAll("input[name=service]")) {
    radio.checked = services[Number(radio.dataset.index)] === service;
  }
}

// A path the service announced, resolved on its own origin only.
function urlFor(id) {
  const url = new URL(chosen.interfaces[id], chosen.base + "/");
  if (url.origin !== new URL(chosen.base).origin) throw new Error("the service announced a foreign path");
  return url.href;
}

// -------------------------------------------------------------- PidOptions

const kOpts = ["fCount", "fType", "format", "env", "timeout", "posh", "wadh", "otp"];

function xmlAttr(value) {
  return String(value).replace(/&/g, "&amp;").replace(/</g, "&lt;").replace(/"/g, "&quot;");
}

function buildPidOptions() {
  const v = Object.fromEntries(kOpts.map((k) => [k, $("opt-" + k).value.trim()]));
  $("pidoptions").value =
      '<PidOptions ver="1.0"><Opts fCount="' + xmlAttr(v.fCount) + '" fType="' + xmlAttr(v.fType) +
      '" iCount="0" pCount="0" format="' + xmlAttr(v.format) + '" pidVer="2.0" timeout="' + xmlAttr(v.timeout) +
      '" env="' + xmlAttr(v.env) + '" posh="' + xmlAttr(v.posh) + '" wadh="' + xmlAttr(v.wadh) + '" otp="' +
      xmlAttr(v.otp) + '"/></PidOptions>';
}

// ---------------------------------------------------------------- answers

function showAnswer(title, r, rows) {
  $("answer-title").textContent = title;
  $("raw").textContent = r.text;
  const body = $("decoded").tBodies[0];
  body.replaceChildren();
  for (const [name, value] of rows) {
    const tr = el("tr");
    tr.appendChild(el("th", name));
    tr.appendChild(el("td", value, {"data-field": name}));
    body.appendChild(tr);
  }
}

function setStatus(text, good) {
  $("answer-status").textContent = text;
  $("answer-status").className = "status " + (good ? "ok" : "bad");
}

function deviceInfoRows(node, prefix) {
  const rows = [];
  const a = attributes(node);
  for (const k of ["dpId", "rdsId", "rdsVer", "dc", "mi", "mc"]) {
    if (k in a) rows.push([prefix + k, k === "mc" && a[k].length > 48 ? a[k].slice(0, 48) + "... (" +
        a[k].length + " characters)" : a[k]]);
  }
  if (node) {
    for (const p of node.getElementsByTagName("Param")) {
      rows.push([prefix + (p.getAttribute("name") || "?"), p.getAttribute("value") || ""]);
    }
  }
  return rows;
}

async function deviceInfo() {
  setStatus("DEVICEINFO sent...", true);
  try {
    const r = await rdFetch(urlFor("DEVICEINFO"), "DEVICEINFO", undefined, 30000);
    const doc = parseXml(r.text);
    const node = doc && doc.getElementsByTagName("DeviceInfo")[0];
    showAnswer("DEVICEINFO", r, deviceInfoRows(node, ""));
    setStatus("DEVICEINFO answered HTTP " + r.status + " in " + r.ms + " ms" +
        (node ? "" : ": no DeviceInfo in the answer"), r.status === 200 && !!node);
  } catch (e) {
    setStatus("DEVICEINFO failed: " + e.message, false);
  }
}

async function capture() {
  const pidOptions = $("pidoptions").value;
  const timeout = parseInt($("opt-timeout").value, 10) || 10000;
  setStatus("CAPTURE sent; place a finger on the scanner...", true);
  try {
    const r = await rdFetch(urlFor("CAPTURE"), "CAPTURE", pidOptions, timeout + 20000);
    const doc = parseXml(r.text);
    const respNode = doc && doc.getElementsByTagName("Resp")[0];
    const resp = respNode ? attributes(respNode) : attributesByScan(r.text, "Resp");
    const rows = [];
    for (const k of ["errCode", "errInfo", "fCount", "fType", "iCount", "pCount", "nmPoints", "qScore"]) {
      if (k in resp) rows.push([k, resp[k]]);
    }
    if (doc) {
      rows.push(...deviceInfoRows(doc.getElementsByTagName("DeviceInfo")[0], "DeviceInfo."));
      const skey = doc.getElementsByTagName("Skey")[0];
      if (skey) {
        rows.push(["ci", skey.getAttribute("ci") || ""]);
        rows.push(["Skey", skey.textContent.length + " Base64 characters"]);
      }
      const hmac = doc.getElementsByTagName("Hmac")[0];
      if (hmac) rows.push(["Hmac", hmac.textContent.length + " Base64 characters"]);
      const data = doc.getElementsByTagName("Data")[0];
      if (data) rows.push(["Data", "type " + (data.getAttribute("type") || "?") + ", " + data.textContent.length +
          " Base64 characters"]);
    }
    showAnswer("CAPTURE", r, rows);
    const code = "errCode" in resp ? resp.errCode : "?";
    setStatus("CAPTURE answered HTTP " + r.status + " in " + r.ms + " ms: errCode " + code +
        ("errInfo" in resp ? " (" + resp.errInfo + ")" : ""), code === "0");
  } catch (e) {
    setStatus("CAPTURE failed: " + e.message, false);
  }
}

async function postAuth(button) {
  const p1 = button.dataset.param1 || "";
  const p2 = button.dataset.param2 || "";
  const p1value = p1 === "PRINTER" ? $("print-text").value : "";
  const body = '<PostAuth><CustOpts><Param1 name="' + xmlAttr(p1) + '" value="' + xmlAttr(p1value) +
      '"/><Param2 name="' + xmlAttr(p2) + '" value=""/></CustOpts></PostAuth>';
  const what = p2 || p1;
  setStatus("POSTAUTH " + what + " sent...", true);
  try {
    const r = await rdFetch(urlFor("POSTAUTH"), "POSTAUTH", body, 30000);
    const device = attributesByScan(r.text, "Device");
    const rd = attributesByScan(r.text, "RD");
    const rows = [["Dev_ErrorCode", device.Dev_ErrorCode], ["Device Description", device.Description],
                  ["Response_value", device.Response_value], ["RD_ErrorCode", rd.RD_ErrorCode],
                  ["RD Description", rd.Description], ["RD_Status", rd.RD_Status]].filter(([, v]) => v !== undefined);
    showAnswer("POSTAUTH " + what, r, rows);
    setStatus("POSTAUTH " + what + " answered HTTP " + r.status + " in " + r.ms + " ms: RD_ErrorCode " +
        (rd.RD_ErrorCode || "?"), rd.RD_ErrorCode === "0");
  } catch (e) {
    setStatus("POSTAUTH failed: " + e.message, false);
  }
}

// ------------------------------------------------------------------ wiring

$("scan").addEventListener("click", scan);
$("deviceinfo").addEventListener("click", deviceInfo);
$("capture").addEventListener("click", capture);
for (const b of document.querySelectorAll(".postauth-cmd")) b.addEventListener("click", () => postAuth(b));
for (const k of kOpts) $("opt-" + k).addEventListener("input", buildPidOptions);
buildPidOptions();

// ?scan=1 starts a scan at once; ?host=, ?first=, ?last=, ?timeout= preset the fields.
const params = new URLSearchParams(location.search);
if (params.has("host")) $("host").value = params.get("host");
if (params.has("first")) $("port-first").value = params.get("first");
if (params.has("last")) $("port-last").value = params.get("last");
if (params.has("timeout")) $("scan-timeout").value = params.get("timeout");
if (params.get("scan") === "1") scan();
