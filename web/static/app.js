// SPDX-License-Identifier: MIT
// The wcan monitor page: one WebSocket to the server, which sends an update
// every tick (trace frames, signal values, now and then the identifier
// table) and a summary every second (buses, load).
'use strict';

const FLAG_EXT = 1, FLAG_RTR = 2, FLAG_FD = 4, FLAG_BRS = 8, FLAG_OWN = 16;
const TRACE_ROWS = 1000;      // rows the append trace keeps on screen
const RECORD_FRAMES = 500000; // frames kept for the downloaded log
const CHART_ROWS = 20000;     // points kept per signal chart

const $ = (id) => document.getElementById(id);
const wcan = {
  socket: null, buses: [], dbc: null, paused: false, mode: 'append',
  record: [], traceRows: new Map(), t0: null, hidden: new Set(),
  loadRows: [], loadGraph: null, picks: [], signalRows: [], signalGraph: null,
  framesSeen: 0, updates: 0, cyclic: new Map(), nextCycle: 1,
};
window.wcan = wcan;

function show(text, bad) {
  const m = $('message');
  m.textContent = text;
  m.className = bad ? 'bad' : 'good';
}

function send(request) {
  if (wcan.socket && wcan.socket.readyState === WebSocket.OPEN)
    wcan.socket.send(JSON.stringify(request));
}

function hexId(id, flags) {
  return id.toString(16).toUpperCase().padStart(flags & FLAG_EXT ? 8 : 3, '0');
}

function kindOf(flags) {
  if (flags & FLAG_RTR) return 'RTR';
  if (flags & FLAG_FD) return flags & FLAG_BRS ? 'FD+BRS' : 'FD';
  return 'CAN';
}

// The frame as cansend and candump -L write it.
function frameText(f) {
  const [, , id, flags, hex, len] = f;
  const head = hexId(id, flags);
  if (flags & FLAG_RTR) return head + '#R' + (len ? len : '');
  if (flags & FLAG_FD) return head + '##' + (flags & FLAG_BRS ? '1' : '0') + hex;
  return head + '#' + hex;
}

function spaced(hex) { return hex.replace(/(..)(?!$)/g, '$1 '); }

function cell(tr, text, cls) {
  const td = document.createElement('td');
  td.textContent = text;
  if (cls) td.className = cls;
  tr.appendChild(td);
  return td;
}

// ---- buses -------------------------------------------------------------
// Rows are kept and their figures updated in place, so that a bit rate being
// chosen for a start survives the next second's figures.
function busRow(b) {
  const tr = document.createElement('tr');
  tr.dataset.bus = b.name;
  const showBox = document.createElement('input');
  showBox.type = 'checkbox';
  showBox.checked = !wcan.hidden.has(b.name);
  showBox.onchange = () => {
    if (showBox.checked) wcan.hidden.delete(b.name); else wcan.hidden.add(b.name);
    send({op: 'view', hidden: [...wcan.hidden]});
  };
  cell(tr, '').appendChild(showBox);
  cell(tr, b.name);
  for (let i = 0; i < 7; i++) cell(tr, '');
  return tr;
}

function busAction(td, b) {
  td.textContent = '';
  if (!b.running) {
    td.innerHTML = '<select><option>1000000</option><option selected>500000</option>' +
      '<option>250000</option><option>125000</option></select> ' +
      '<select><option>5000000</option><option selected>2000000</option><option>1000000</option></select> ' +
      '<label><input type="checkbox"> FD</label> <button>Start</button>';
    const [rate, drate] = td.querySelectorAll('select');
    const fd = td.querySelector('input');
    td.querySelector('button').onclick = () => send({op: 'open', bus: b.name,
      bitrate: Number(rate.value), dbitrate: Number(drate.value), fd: fd.checked});
  } else if (b.monitor) {
    const stop = document.createElement('button');
    stop.textContent = 'Stop';
    stop.onclick = () => send({op: 'close', bus: b.name});
    td.appendChild(stop);
  }
}

function renderBuses() {
  const body = $('buses').querySelector('tbody');
  const sendBus = $('sendBus');
  for (const b of wcan.buses) {
    let tr = body.querySelector(`tr[data-bus="${b.name}"]`);
    if (!tr) {
      tr = busRow(b);
      body.appendChild(tr);
      const opt = document.createElement('option');
      opt.textContent = b.name;
      sendBus.appendChild(opt);
    }
    const c = tr.cells;
    const state = b.running ? 'running' + (b.monitor ? ' (page)' : '') : 'stopped';
    if (c[2].textContent !== state) busAction(c[8], b);
    c[2].textContent = state;
    c[2].className = b.running ? 'good' : '';
    c[3].textContent = b.rates;
    c[4].textContent = String(b.clients);
    c[5].textContent = b.load === null ? '' : b.load.toFixed(1) + ' %';
    c[6].textContent = b.running ? String(b.fps) : '';
    c[7].textContent = String(b.frames);
  }
}

// ---- load chart --------------------------------------------------------
function loadRow(row) { return [new Date(row[0])].concat(wcan.buses.map((b, i) => row[i + 1] ?? null)); }

function drawLoad() {
  if (wcan.buses.length === 0 || wcan.loadRows.length === 0) return;
  const labels = ['time'].concat(wcan.buses.map((b) => b.name));
  const data = wcan.loadRows.map(loadRow);
  if (!wcan.loadGraph || wcan.loadGraph.getLabels().length !== labels.length) {
    if (wcan.loadGraph) wcan.loadGraph.destroy();
    wcan.loadGraph = new Dygraph($('loadChart'), data, {labels, ylabel: 'load (%)',
      valueRange: [0, 100], legend: 'always', labelsSeparateLines: false});
  } else {
    wcan.loadGraph.updateOptions({file: data});
  }
}

// ---- trace and table ---------------------------------------------------
function busName(i) { return wcan.buses[i] ? wcan.buses[i].name : String(i); }

function traceRow(f) {
  const [t, bus, id, flags, hex, len, decoded] = f;
  if (wcan.t0 === null) wcan.t0 = t;
  const tr = document.createElement('tr');
  tr.title = new Date(t / 1000).toISOString();
  cell(tr, ((t - wcan.t0) / 1e6).toFixed(6));
  cell(tr, busName(bus));
  cell(tr, flags & FLAG_OWN ? 'Tx' : 'Rx');
  cell(tr, hexId(id, flags));
  cell(tr, kindOf(flags));
  cell(tr, String(len));
  cell(tr, flags & FLAG_RTR ? '' : spaced(hex));
  const rows = [tr];
  if (decoded) {
    const sub = document.createElement('tr');
    sub.className = 'decoded';
    const td = cell(sub, decoded);
    td.colSpan = 7;
    rows.push(sub);
  }
  return rows;
}

function addFrames(frames) {
  const body = $('trace').querySelector('tbody');
  const scroller = $('trace').parentElement;
  const following = scroller.scrollTop + scroller.clientHeight >= scroller.scrollHeight - 30;
  const fragment = document.createDocumentFragment();
  for (const f of frames) {
    wcan.framesSeen++;
    if (wcan.record.length < RECORD_FRAMES) wcan.record.push(f);
    const rows = traceRow(f);
    if (wcan.mode === 'perid') {
      const key = f[1] + ':' + f[2] + ':' + (f[3] & FLAG_EXT);
      const old = wcan.traceRows.get(key);
      if (old) {
        old[0].replaceWith(rows[0]);
        if (old[1]) old[1].remove();
        if (rows[1]) rows[0].after(rows[1]);
      } else {
        rows.forEach((r) => fragment.appendChild(r));
      }
      wcan.traceRows.set(key, rows);
    } else {
      rows.forEach((r) => fragment.appendChild(r));
    }
  }
  body.appendChild(fragment);
  if (wcan.mode === 'append') {
    while (body.rows.length > TRACE_ROWS) body.deleteRow(0);
    // The newest frames stay in view unless the user scrolled back.
    if (following) scroller.scrollTop = scroller.scrollHeight;
  }
  $('traceCount').textContent = wcan.framesSeen + ' frames seen';
}

function renderTable(rows) {
  const body = $('idtable').querySelector('tbody');
  body.textContent = '';
  for (const [bus, id, ext, kind, len, hex, changed, count, period, jitter, age, faded] of rows) {
    const tr = document.createElement('tr');
    if (faded) tr.className = 'faded';
    cell(tr, busName(bus));
    cell(tr, hexId(id, ext ? FLAG_EXT : 0));
    cell(tr, kind);
    cell(tr, String(len));
    const data = cell(tr, '', 'data');
    const mask = BigInt('0x' + changed);
    for (let i = 0; i < hex.length / 2; i++) {
      const span = document.createElement('span');
      span.textContent = hex.substr(2 * i, 2) + ' ';
      if ((mask >> BigInt(i)) & 1n) span.className = 'changed';
      data.appendChild(span);
    }
    cell(tr, String(count));
    cell(tr, count > 1 ? period.toFixed(2) : '');
    cell(tr, count > 2 ? jitter.toFixed(2) : '');
    cell(tr, count > 1 && period > 0 ? (1000 / period).toFixed(1) : '');
    cell(tr, String(age));
    body.appendChild(tr);
  }
}

// ---- signals -----------------------------------------------------------
function signalOf(pick) {
  const [m, s] = pick.split('.');
  const message = wcan.dbc && wcan.dbc.messages.find((x) => x.name === m);
  return message && message.signals.find((x) => x.name === s);
}

function renderDbc() {
  const picker = $('signalPicker');
  picker.textContent = '';
  const messages = $('sendMessage');
  messages.textContent = '';
  wcan.picks = [];
  wcan.signalRows = [];
  if (wcan.signalGraph) { wcan.signalGraph.destroy(); wcan.signalGraph = null; }
  if (!wcan.dbc) {
    $('dbcState').textContent = wcan.dbcAvailable ? 'no DBC file loaded' : 'this build reads no DBC files';
    return;
  }
  $('dbcState').textContent = wcan.dbc.messages.length + ' messages';
  for (const m of wcan.dbc.messages) {
    const box = document.createElement('details');
    box.open = true;
    const title = document.createElement('summary');
    title.textContent = m.name + ' (' + hexId(m.id, m.extended ? FLAG_EXT : 0) + ')';
    box.appendChild(title);
    for (const s of m.signals) {
      const label = document.createElement('label');
      const check = document.createElement('input');
      check.type = 'checkbox';
      check.value = m.name + '.' + s.name;
      check.onchange = pickSignals;
      label.appendChild(check);
      label.append(' ' + s.name + (s.unit ? ' [' + s.unit + ']' : ''));
      box.appendChild(label);
      box.appendChild(document.createElement('br'));
    }
    picker.appendChild(box);
    const opt = document.createElement('option');
    opt.textContent = m.name;
    messages.appendChild(opt);
  }
  renderSignalInputs();
}

function pickSignals() {
  wcan.picks = [...$('signalPicker').querySelectorAll('input:checked')].map((c) => c.value);
  wcan.signalRows = [];
  if (wcan.signalGraph) { wcan.signalGraph.destroy(); wcan.signalGraph = null; }
  send({op: 'signals', picks: wcan.picks});
}

function addSamples(samples) {
  if (samples.length === 0 || wcan.picks.length === 0) return;
  for (const [t, k, v] of samples) {
    const row = new Array(wcan.picks.length + 1).fill(null);
    row[0] = new Date(t / 1000);
    row[k + 1] = v;
    wcan.signalRows.push(row);
  }
  if (wcan.signalRows.length > CHART_ROWS) wcan.signalRows.splice(0, wcan.signalRows.length - CHART_ROWS);
  const labels = ['time'].concat(wcan.picks.map((p) => {
    const s = signalOf(p);
    return s && s.unit ? p + ' [' + s.unit + ']' : p;
  }));
  const units = [...new Set(wcan.picks.map((p) => (signalOf(p) || {}).unit).filter((u) => u))];
  if (!wcan.signalGraph) {
    wcan.signalGraph = new Dygraph($('signalChart'), wcan.signalRows, {labels,
      ylabel: units.join(', '), connectSeparatedPoints: true, legend: 'always', drawPoints: true});
  } else {
    wcan.signalGraph.updateOptions({file: wcan.signalRows});
  }
}

async function uploadDbc() {
  const file = $('dbcFile').files[0];
  if (!file) { show('choose a DBC file first', true); return; }
  try {
    const reply = await fetch('/dbc', {method: 'POST', body: file, credentials: 'same-origin'});
    const text = await reply.text();
    let result;
    try { result = JSON.parse(text); } catch (e) { result = {ok: false, error: text.trim()}; }
    if (result.ok) show('DBC loaded: ' + result.messages + ' messages' +
      (result.warnings.length ? ' (' + result.warnings.length + ' warnings)' : ''));
    else show(result.error, true);
  } catch (e) {
    show('upload failed: ' + e, true);
  }
}

// ---- sending -----------------------------------------------------------
function renderSignalInputs() {
  const holder = $('sendSignals');
  holder.textContent = '';
  const m = wcan.dbc && wcan.dbc.messages.find((x) => x.name === $('sendMessage').value);
  if (!m) return;
  for (const s of m.signals) {
    const label = document.createElement('label');
    label.append(s.name + ' ');
    const input = document.createElement('input');
    input.size = 6;
    input.dataset.signal = s.name;
    input.value = '0';
    label.appendChild(input);
    if (s.unit) label.append(' ' + s.unit);
    holder.appendChild(label);
  }
}

function whatToSend() {
  const request = {bus: $('sendBus').value};
  if (document.querySelector('input[name=sendKind]:checked').value === 'frame') {
    request.frame = $('sendFrame').value.trim();
  } else {
    request.message = $('sendMessage').value;
    request.values = {};
    for (const input of $('sendSignals').querySelectorAll('input'))
      if (input.value.trim() !== '') request.values[input.dataset.signal] = input.value.trim();
  }
  return request;
}

function startCyclic() {
  const request = whatToSend();
  request.op = 'cyclic';
  request.key = 'c' + wcan.nextCycle++;
  request.period = Number($('sendPeriod').value);
  send(request);
  const li = document.createElement('li');
  li.dataset.key = request.key;
  li.textContent = (request.frame || request.message) + ' on ' + request.bus + ' every ' +
    request.period + ' ms ';
  const stop = document.createElement('button');
  stop.textContent = 'Stop';
  stop.onclick = () => { send({op: 'stopCyclic', key: request.key}); li.remove(); };
  li.appendChild(stop);
  $('cyclic').appendChild(li);
}

// ---- recording ---------------------------------------------------------
function downloadLog() {
  const lines = wcan.record.map((f) => {
    const t = f[0];
    const seconds = Math.floor(t / 1e6), micros = String(t % 1e6).padStart(6, '0');
    return '(' + seconds + '.' + micros + ') ' + busName(f[1]) + ' ' + frameText(f);
  });
  const blob = new Blob([lines.join('\n') + (lines.length ? '\n' : '')], {type: 'text/plain'});
  const a = document.createElement('a');
  a.href = URL.createObjectURL(blob);
  a.download = 'wcan-' + new Date().toISOString().replace(/[:.]/g, '-') + '.log';
  a.click();
  setTimeout(() => URL.revokeObjectURL(a.href), 1000);
}

// The server keeps what it sent this page since the page connected and
// writes it as pcapng, so that nothing big has to go back up.
function downloadPcapng() {
  const a = document.createElement('a');
  a.href = '/record.pcapng?session=' + wcan.session;
  a.download = 'wcan-' + new Date().toISOString().replace(/[:.]/g, '-') + '.pcapng';
  a.click();
}

// ---- the connection ----------------------------------------------------
function onMessage(event) {
  const m = JSON.parse(event.data);
  switch (m.t) {
    case 'hello':
      wcan.session = m.session;
      wcan.buses = m.buses;
      wcan.loadRows = m.load;
      wcan.dbc = m.dbc;
      wcan.dbcAvailable = m.dbcAvailable;
      renderBuses();
      renderDbc();
      drawLoad();
      break;
    case 'update':
      wcan.updates++;
      if (!wcan.paused) addFrames(m.frames);
      addSamples(m.samples);
      if (m.table) renderTable(m.table);
      $('missed').textContent = (m.thinned || m.missed || m.samplesDropped)
        ? 'not shown: ' + m.thinned + ' over budget, ' + m.missed + ' missed while behind' +
          (m.samplesDropped ? ', ' + m.samplesDropped + ' signal values' : '') : '';
      break;
    case 'second':
      wcan.buses = m.buses;
      wcan.loadRows.push(m.load);
      if (wcan.loadRows.length > 600) wcan.loadRows.shift();
      renderBuses();
      drawLoad();
      break;
    case 'dbc':
      wcan.dbc = m.dbc;
      renderDbc();
      break;
    case 'error':
      show(m.msg, true);
      break;
    case 'ok':
      show(m.msg, false);
      break;
  }
}

function connect() {
  const scheme = location.protocol === 'https:' ? 'wss://' : 'ws://';
  const socket = new WebSocket(scheme + location.host + '/ws');
  wcan.socket = socket;
  socket.onopen = () => {
    $('status').textContent = 'connected';
    $('status').className = 'good';
    send({op: 'view', mode: wcan.mode, paused: false, filter: $('filter').value});
  };
  socket.onmessage = onMessage;
  socket.onclose = () => {
    $('status').textContent = 'disconnected; retrying';
    $('status').className = 'bad';
    setTimeout(connect, 2000);
  };
}

function setUp() {
  // The cookie set on this first visit holds the token from now on.
  if (location.search.includes('token='))
    history.replaceState(null, '', location.pathname);
  $('pause').onclick = () => {
    wcan.paused = !wcan.paused;
    $('pause').textContent = wcan.paused ? 'Resume' : 'Pause';
    send({op: 'view', paused: wcan.paused});
  };
  $('traceMode').onchange = () => {
    wcan.mode = $('traceMode').value;
    wcan.traceRows.clear();
    $('trace').querySelector('tbody').textContent = '';
    send({op: 'view', mode: wcan.mode});
  };
  $('applyFilter').onclick = () => send({op: 'view', filter: $('filter').value});
  $('clearTrace').onclick = () => {
    $('trace').querySelector('tbody').textContent = '';
    wcan.traceRows.clear();
    wcan.record = [];
    send({op: 'clearRecord'});
  };
  $('downloadLog').onclick = downloadLog;
  $('downloadPcapng').onclick = downloadPcapng;
  $('uploadDbc').onclick = uploadDbc;
  $('sendMessage').onchange = renderSignalInputs;
  $('sendOnce').onclick = () => send(Object.assign({op: 'send'}, whatToSend()));
  $('startCyclic').onclick = startCyclic;
  connect();
}

setUp();
