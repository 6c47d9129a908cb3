// The page of `sxscan serve`: it reads the scanner's eSCL capabilities,
// offers what the scanner has, scans through the eSCL jobs as any client
// does, and shows each page as it arrives. Everything it shows that comes
// from the scanner is set as text, never as markup.
'use strict';

const MM_PER_INCH = 25.4;
const UNITS_PER_INCH = 300; // eSCL lengths are in three-hundredths of an inch
const STATUS_EVERY_MS = 3000;
const BUSY_ASKS = 10;
const BUSY_WAIT_MS = 1000;
const PREVIEW_FORMAT = 'image/jpeg';
// Roughly how much of a page's raw pixel bytes a JPEG takes: a page
// arrives in a stream of unknown length.
const JPEG_SHARE_OF_RAW = 0.1;
const PNG_SIGNATURE_BYTES = 8;
const PNG_CHUNK_HEADER_BYTES = 8;
const PNG_CRC_BYTES = 4;
const MODE_NAMES = { RGB24: 'Colour', Grayscale8: 'Grey', BlackAndWhite1: 'Black and white' };
const FORMATS = {
  'image/png': { name: 'PNG', extension: 'png' },
  'image/jpeg': { name: 'JPEG', extension: 'jpg' },
  'application/pdf': { name: 'PDF', extension: 'pdf' },
};
// Paper sizes in millimetres; only those within the bed are offered.
const PAPERS = [
  ['A3', 297, 420], ['A4', 210, 297], ['A5', 148, 210], ['A6', 105, 148], ['B5', 176, 250],
  ['Letter', 215.9, 279.4], ['Legal', 215.9, 355.6], ['Executive', 184.2, 266.7],
  ['Photo 10 × 15 cm', 101.6, 152.4], ['Photo 13 × 18 cm', 127, 177.8],
];
const WHOLE_BED = 'bed';
const CUSTOM = 'custom';
const SMALLEST_DRAG_PX = 6;

const $ = (id) => document.getElementById(id);
const ui = {};
const state = {
  sources: {}, // 'Platen' / 'Feeder': { maxWidth, maxHeight, minWidth, minHeight, modes, resolutions, formats }
  tones: {}, // 'Brightness' / 'Contrast': { min, max, normal, step }
  area: { x: 0, y: 0, w: 0, h: 0 }, // three-hundredths of an inch
  running: false, // a preview or scan is under way
  job: null, // its job's URL, once the scanner took the settings
  abort: null,
  cancelled: false,
  urls: [], // object URLs of the shown results, let go at the next scan
};

// ---- eSCL documents ------------------------------------------------------

const SCAN_NS = 'http://schemas.hp.com/imaging/escl/2011/05/03';
const PWG_NS = 'http://www.pwg.org/schemas/2010/12/sm';
const SX_NS = 'urn:sxscan:escl';

function children(node, name) {
  return node ? Array.from(node.getElementsByTagNameNS('*', name)) : [];
}
function text(node, name) {
  const found = children(node, name)[0];
  return found ? found.textContent.trim() : '';
}
function number(node, name) {
  return Number(text(node, name));
}

function readSource(caps) {
  if (!caps) return null;
  const profile = children(caps, 'SettingProfile')[0];
  return {
    maxWidth: number(caps, 'MaxWidth'), maxHeight: number(caps, 'MaxHeight'),
    minWidth: number(caps, 'MinWidth'), minHeight: number(caps, 'MinHeight'),
    modes: children(profile, 'ColorMode').map((m) => m.textContent.trim()),
    resolutions: children(profile, 'DiscreteResolution').map((r) => number(r, 'XResolution')),
    formats: [...new Set(children(profile, 'DocumentFormatExt').map((f) => f.textContent.trim()))],
  };
}

function readCapabilities(xml) {
  const doc = new DOMParser().parseFromString(xml, 'application/xml');
  state.sources = {};
  const platen = readSource(children(doc, 'PlatenInputCaps')[0]);
  const feeder = readSource(children(doc, 'AdfSimplexInputCaps')[0]);
  if (platen) state.sources.Platen = platen;
  if (feeder) state.sources.Feeder = feeder;
  for (const tone of ['Brightness', 'Contrast']) {
    const support = children(doc, tone + 'Support')[0];
    if (support) {
      state.tones[tone] = { min: number(support, 'Min'), max: number(support, 'Max'),
                            normal: number(support, 'Normal'), step: number(support, 'Step') || 1 };
    }
  }
  return { model: text(doc, 'MakeAndModel'), serial: text(doc, 'SerialNumber') };
}

function element(doc, ns, name, value) {
  const node = doc.createElementNS(ns, name);
  if (value !== undefined) node.textContent = String(value);
  return node;
}

// A ScanSettings document, built as XML nodes so that no value is taken for markup.
function scanSettings(s) {
  const doc = document.implementation.createDocument(SCAN_NS, 'scan:ScanSettings', null);
  const root = doc.documentElement;
  root.setAttributeNS('http://www.w3.org/2000/xmlns/', 'xmlns:pwg', PWG_NS);
  const add = (ns, name, value) => root.appendChild(element(doc, ns, name, value));
  add(PWG_NS, 'pwg:Version', '2.63');
  const regions = add(PWG_NS, 'pwg:ScanRegions');
  const region = regions.appendChild(element(doc, PWG_NS, 'pwg:ScanRegion'));
  for (const [name, value] of [['Height', s.area.h], ['ContentRegionUnits', 'escl:ThreeHundredthsOfInches'],
                               ['Width', s.area.w], ['XOffset', s.area.x], ['YOffset', s.area.y]]) {
    region.appendChild(element(doc, PWG_NS, 'pwg:' + name, value));
  }
  add(PWG_NS, 'pwg:InputSource', s.source);
  add(SCAN_NS, 'scan:ColorMode', s.mode);
  add(SCAN_NS, 'scan:XResolution', s.resolution);
  add(SCAN_NS, 'scan:YResolution', s.resolution);
  add(SCAN_NS, 'scan:DocumentFormatExt', s.format);
  if (s.brightness !== undefined) add(SCAN_NS, 'scan:Brightness', s.brightness);
  if (s.contrast !== undefined) add(SCAN_NS, 'scan:Contrast', s.contrast);
  if (s.batchPdf) add(SX_NS, 'sx:BatchPdf', 'true');
  return '<?xml version="1.0" encoding="UTF-8"?>' + new XMLSerializer().serializeToString(doc);
}

// ---- the settings form -------------------------------------------------------

function option(select, value, label) {
  const o = document.createElement('option');
  o.value = String(value);
  o.textContent = label;
  select.append(o);
  return o;
}

function fill(select, items, labelOf, preferred) {
  const previous = select.value;
  select.replaceChildren();
  for (const item of items) option(select, item, labelOf(item));
  const values = items.map(String);
  select.value = values.includes(previous) ? previous : values.includes(String(preferred)) ? String(preferred) : values[0];
}

const source = () => state.sources[ui.source.value];
const toMm = (units) => Math.round((units * MM_PER_INCH / UNITS_PER_INCH) * 10) / 10;
const toUnits = (mm) => Math.round(mm * UNITS_PER_INCH / MM_PER_INCH);

function offerSource() {
  const s = source();
  fill(ui.mode, s.modes, (m) => MODE_NAMES[m] || m, 'RGB24');
  const usual = s.resolutions.reduce((best, r) => (Math.abs(r - 300) < Math.abs(best - 300) ? r : best), s.resolutions[0]);
  fill(ui.resolution, s.resolutions, (r) => r + ' dpi', usual);
  fill(ui.format, s.formats, (f) => (FORMATS[f] ? FORMATS[f].name : f), 'application/pdf');
  const papers = PAPERS.filter(([, w, h]) => toUnits(w) <= s.maxWidth && toUnits(h) <= s.maxHeight);
  ui.paper.replaceChildren();
  option(ui.paper, WHOLE_BED, ui.source.value === 'Feeder' ? 'Longest feeder page' : 'Whole bed');
  for (const [name, w, h] of papers) option(ui.paper, name, name + ' (' + w + ' × ' + h + ' mm)');
  option(ui.paper, CUSTOM, 'Custom');
  ui.bed.style.aspectRatio = s.maxWidth + ' / ' + s.maxHeight;
  const platen = ui.source.value === 'Platen';
  ui.previewButton.disabled = !platen;
  ui.bedHint.textContent = platen ? 'Drag on the bed to choose the area to scan.'
    : 'A preview scans the flatbed; drag to choose the area of the feeder pages.';
  ui.preview.hidden = !platen || !ui.preview.src;
  choosePaper(WHOLE_BED);
  describeFormat();
}

function choosePaper(name) {
  const s = source();
  ui.paper.value = name;
  const paper = PAPERS.find(([n]) => n === name);
  if (paper) setArea({ x: 0, y: 0, w: toUnits(paper[1]), h: toUnits(paper[2]) });
  else if (name === WHOLE_BED) setArea({ x: 0, y: 0, w: s.maxWidth, h: s.maxHeight });
}

// Keeps the area within the bed and no smaller than the scanner takes.
function setArea(a) {
  const s = source();
  const w = Math.min(Math.max(a.w, s.minWidth || 1), s.maxWidth);
  const h = Math.min(Math.max(a.h, s.minHeight || 1), s.maxHeight);
  state.area = { x: Math.min(Math.max(a.x, 0), s.maxWidth - w), y: Math.min(Math.max(a.y, 0), s.maxHeight - h), w, h };
  const { x, y } = state.area;
  [ui.left.value, ui.top.value, ui.width.value, ui.height.value] = [x, y, w, h].map(toMm);
  for (const [input, most] of [[ui.left, s.maxWidth], [ui.top, s.maxHeight], [ui.width, s.maxWidth], [ui.height, s.maxHeight]]) {
    input.max = toMm(most);
  }
  Object.assign(ui.area.style, { left: pct(x, s.maxWidth), top: pct(y, s.maxHeight), width: pct(w, s.maxWidth), height: pct(h, s.maxHeight) });
}
const pct = (part, whole) => (100 * part / whole) + '%';

function areaFromFields() {
  const mm = [ui.left, ui.top, ui.width, ui.height].map((input) => Number(input.value));
  if (mm.some((v) => !Number.isFinite(v))) return;
  ui.paper.value = CUSTOM;
  setArea({ x: toUnits(mm[0]), y: toUnits(mm[1]), w: toUnits(mm[2]), h: toUnits(mm[3]) });
}

function offerTone(name) {
  const tone = state.tones[name];
  const row = $(name.toLowerCase() + '-row');
  if (!tone) return;
  const input = ui[name.toLowerCase()];
  Object.assign(input, { min: tone.min, max: tone.max, step: tone.step, value: tone.normal });
  const output = $(name.toLowerCase() + '-value');
  // Shown, and read out, as the change from the scanner's neutral value.
  const show = () => {
    const offset = Number(input.value) - tone.normal;
    output.textContent = offset > 0 ? '+' + offset : String(offset);
    input.setAttribute('aria-valuetext', output.textContent);
  };
  input.addEventListener('input', show);
  show();
  row.hidden = false;
}

function describeFormat() {
  const feeder = ui.source.value === 'Feeder';
  const pdf = ui.format.value === 'application/pdf';
  ui.formatHint.textContent = !feeder ? ''
    : pdf ? 'The feeder\'s pages go into one PDF.' : 'Each feeder page becomes a file of its own.';
}

function chosenSettings() {
  const tone = (name) => (state.tones[name] ? Number(ui[name.toLowerCase()].value) : undefined);
  return {
    source: ui.source.value, mode: ui.mode.value, resolution: Number(ui.resolution.value),
    area: { ...state.area }, format: ui.format.value,
    brightness: tone('Brightness'), contrast: tone('Contrast'),
  };
}

// ---- drawing the area on the bed (mouse, pen and touch alike) ---------------

function bedPoint(event) {
  const box = ui.bed.getBoundingClientRect();
  const s = source();
  const fx = Math.min(Math.max((event.clientX - box.left) / box.width, 0), 1);
  const fy = Math.min(Math.max((event.clientY - box.top) / box.height, 0), 1);
  return { x: fx * s.maxWidth, y: fy * s.maxHeight, px: event.clientX, py: event.clientY };
}

function watchDrawing() {
  let start = null;
  const rectangle = (a, b) => ({ x: Math.round(Math.min(a.x, b.x)), y: Math.round(Math.min(a.y, b.y)),
                                 w: Math.round(Math.abs(a.x - b.x)), h: Math.round(Math.abs(a.y - b.y)) });
  ui.bed.addEventListener('pointerdown', (event) => {
    if (state.running || event.button !== 0) return;
    start = bedPoint(event);
    ui.bed.setPointerCapture(event.pointerId);
    event.preventDefault();
  });
  ui.bed.addEventListener('pointermove', (event) => {
    if (!start) return;
    const end = bedPoint(event);
    if (Math.abs(end.px - start.px) < SMALLEST_DRAG_PX && Math.abs(end.py - start.py) < SMALLEST_DRAG_PX) return;
    ui.paper.value = CUSTOM;
    setArea(rectangle(start, end));
  });
  const finish = () => { start = null; };
  ui.bed.addEventListener('pointerup', finish);
  ui.bed.addEventListener('pointercancel', finish);
}

// ---- scanning ---------------------------------------------------------------

function say(message) {
  ui.message.textContent = message;
}

function sizeText(bytes) {
  if (bytes < 1024 * 1024) return Math.max(1, Math.round(bytes / 1024)) + ' KiB';
  return (bytes / (1024 * 1024)).toFixed(1) + ' MiB';
}

// The reason the server gives, as text.
async function reason(response) {
  const body = (await response.text()).trim();
  return body || response.status + ' ' + response.statusText;
}

class ScanError extends Error {}

// The scanner is busy for a moment after a job (or with another client's):
// the page asks again a few times before giving up.
async function startJob(settings) {
  for (let asked = 1; ; asked += 1) {
    const response = await fetch('/eSCL/ScanJobs', {
      method: 'POST', headers: { 'Content-Type': 'text/xml' }, body: scanSettings(settings),
    });
    if (response.status === 201) return response.headers.get('Location');
    if (response.status !== 503) throw new ScanError('The scanner refused the settings: ' + await reason(response));
    if (asked === BUSY_ASKS || state.cancelled) throw new ScanError('The scanner is busy with another job; try again later.');
    say('The scanner is busy; waiting…');
    await new Promise((resolve) => setTimeout(resolve, BUSY_WAIT_MS));
  }
}

// The lines of a PNG received so far. Its image data is one zlib stream of
// lines (each a filter byte and the line's pixels), inflated as it arrives;
// `changed` is called as lines come out.
class PngLines {
  constructor(lineBytes, changed) {
    this.lineBytes = lineBytes + 1;
    this.inflated = 0;
    this.skip = PNG_SIGNATURE_BYTES; // bytes to pass over
    this.header = []; // of the chunk being read
    this.data = 0; // image data bytes still to come in this chunk
    const inflater = new DecompressionStream('deflate');
    this.writer = inflater.writable.getWriter();
    const reader = inflater.readable.getReader();
    const pump = () => reader.read().then(({ done, value }) => {
      if (!done) {
        this.inflated += value.length;
        changed();
        pump();
      }
    }, () => {});
    pump();
  }

  get lines() {
    return Math.floor(this.inflated / this.lineBytes);
  }

  add(bytes) {
    for (let at = 0; at < bytes.length;) {
      const n = Math.min(this.skip || this.data, bytes.length - at);
      if (this.skip) {
        this.skip -= n;
        at += n;
      } else if (this.data) {
        this.writer.write(bytes.subarray(at, at + n)).catch(() => {});
        this.data -= n;
        at += n;
        if (!this.data) this.skip = PNG_CRC_BYTES;
      } else {
        this.header.push(bytes[at]);
        at += 1;
        if (this.header.length === PNG_CHUNK_HEADER_BYTES) this.chunk();
      }
    }
  }

  chunk() {
    const [a, b, c, d, ...type] = this.header;
    this.header = [];
    const length = ((a << 24) | (b << 16) | (c << 8) | d) >>> 0;
    if (String.fromCharCode(...type) === 'IDAT' && length) this.data = length;
    else this.skip = length + PNG_CRC_BYTES;
  }

  close() {
    this.writer.close().catch(() => {});
  }
}

// How far a page has come: by its lines for a PNG, else by its bytes
// against an estimate of its size.
class PageProgress {
  constructor(settings, changed) {
    const dots = (units) => Math.max(1, Math.floor(units * settings.resolution / UNITS_PER_INCH));
    const width = dots(settings.area.w);
    const lineBytes = settings.mode === 'RGB24' ? 3 * width : settings.mode === 'Grayscale8' ? width : Math.ceil(width / 8);
    this.lines = dots(settings.area.h);
    this.expected = lineBytes * this.lines * JPEG_SHARE_OF_RAW;
    this.received = 0;
    this.png = settings.format === 'image/png' ? new PngLines(lineBytes, changed) : null;
  }

  add(bytes) {
    this.received += bytes.length;
    if (this.png) this.png.add(bytes);
  }

  get fraction() {
    return this.png ? Math.min(this.png.lines / this.lines, 1) : Math.min(this.received / this.expected, 0.99);
  }

  describe(label) {
    return label + ': ' + sizeText(this.received) + ' received, ' + (this.png
      ? Math.min(this.png.lines, this.lines) + ' of ' + this.lines + ' lines'
      : 'about ' + Math.round(100 * this.fraction) + ' %');
  }

  close() {
    if (this.png) this.png.close();
  }
}

// One document of the job, read as it arrives; null when the job has no more.
async function nextDocument(settings, label) {
  const response = await fetch(state.job + '/NextDocument', { signal: state.abort.signal });
  if (response.status === 404) return null;
  if (!response.ok) throw new ScanError(await reason(response));
  const reader = response.body.getReader();
  const chunks = [];
  const show = () => {
    ui.progress.value = progress.fraction;
    ui.received.textContent = progress.describe(label);
  };
  const progress = new PageProgress(settings, show);
  ui.progress.hidden = false;
  try {
    for (;;) {
      const { done, value } = await reader.read();
      if (done) break;
      chunks.push(value);
      progress.add(value);
      show();
    }
  } finally {
    progress.close();
  }
  ui.progress.value = 1;
  ui.received.textContent = label + ': ' + sizeText(progress.received);
  return new Blob(chunks, { type: response.headers.get('Content-Type') || '' });
}

function keepUrl(blob) {
  const url = URL.createObjectURL(blob);
  state.urls.push(url);
  return url;
}

function downloadLink(blob, name, label) {
  const a = document.createElement('a');
  a.href = keepUrl(blob);
  a.download = name;
  a.className = 'download';
  a.textContent = label + ' (' + sizeText(blob.size) + ')';
  return a;
}

function showPage(blob, number, settings, separate) {
  const item = document.createElement('li');
  const figure = document.createElement('figure');
  const img = document.createElement('img');
  img.src = keepUrl(blob);
  img.alt = 'Page ' + number;
  figure.append(img);
  const caption = document.createElement('figcaption');
  caption.textContent = 'Page ' + number;
  figure.append(caption);
  item.append(figure);
  if (separate) {
    const format = FORMATS[settings.format];
    item.append(downloadLink(blob, 'scan-' + number + '.' + format.extension, 'Download page ' + number + ' as ' + format.name));
  }
  ui.pages.append(item);
}

function clearResults() {
  for (const url of state.urls) URL.revokeObjectURL(url);
  state.urls = [];
  ui.pages.replaceChildren();
  ui.downloads.replaceChildren();
  ui.received.textContent = '';
  ui.progress.hidden = true;
  ui.progress.value = 0;
}

// Runs one job: `onPage` gets each page as it arrives.
async function runJob(settings, onPage) {
  setBusy(true);
  state.abort = new AbortController();
  try {
    state.job = await startJob(settings);
    if (state.cancelled) {
      await fetch(state.job, { method: 'DELETE' });
      throw new ScanError('Cancelled.');
    }
    for (let number = 1; ; number += 1) {
      say('Scanning page ' + number + '…');
      const blob = await nextDocument(settings, 'Page ' + number);
      if (!blob) return number - 1;
      onPage(blob, number);
    }
  } finally {
    state.abort = null;
  }
}

async function fetchBatch() {
  const response = await fetch(state.job + '/BatchPdf');
  if (!response.ok) throw new ScanError('The PDF of the pages is not there: ' + await reason(response));
  return response.blob();
}

async function scan() {
  const settings = chosenSettings();
  const pdf = settings.format === 'application/pdf';
  // A page is shown as an image; a PDF is made of all of them at the end.
  const shown = pdf ? { ...settings, format: settings.mode === 'BlackAndWhite1' ? 'image/png' : 'image/jpeg', batchPdf: true }
    : settings;
  clearResults();
  await attempt(async () => {
    const pages = await runJob(shown, (blob, number) => {
      showPage(blob, number, shown, !pdf);
      say('Page ' + number + ' received.');
    });
    if (pages === 0) throw new ScanError('The scanner gave no page.');
    if (pdf) {
      const batch = await fetchBatch();
      ui.downloads.append(downloadLink(batch, 'scan.pdf', 'Download the PDF, ' + pages + (pages === 1 ? ' page' : ' pages')));
    }
    say('Done: ' + pages + (pages === 1 ? ' page.' : ' pages.'));
  });
}

async function preview() {
  const s = state.sources.Platen;
  const mode = s.modes.includes('RGB24') ? 'RGB24' : s.modes.includes('Grayscale8') ? 'Grayscale8' : s.modes[0];
  const settings = { source: 'Platen', mode, resolution: Math.min(...s.resolutions),
                     area: { x: 0, y: 0, w: s.maxWidth, h: s.maxHeight },
                     format: s.formats.includes(PREVIEW_FORMAT) ? PREVIEW_FORMAT : s.formats[0] };
  await attempt(async () => {
    await runJob(settings, (blob) => {
      if (ui.preview.src) URL.revokeObjectURL(ui.preview.src);
      ui.preview.src = URL.createObjectURL(blob);
      ui.preview.alt = 'Preview of the whole bed';
      ui.preview.hidden = false;
    });
    say('Preview done: drag on it to choose the area.');
  });
}

// Runs a scan or a preview and says how it ended.
async function attempt(work) {
  try {
    await work();
  } catch (error) {
    if (error.name === 'AbortError' || state.cancelled) say('Cancelled.');
    else if (error instanceof ScanError) say(error.message);
    else say('The connection to the scanner failed: ' + error.message);
  } finally {
    state.job = null;
    setBusy(false);
    refreshStatus();
  }
}

// Stops the job (DELETE) and the reading of its page. A job whose settings
// are still on their way is stopped as soon as it is known.
async function cancel() {
  state.cancelled = true;
  ui.cancelButton.disabled = true;
  say('Cancelling…');
  try {
    if (state.job) await fetch(state.job, { method: 'DELETE' });
  } finally {
    if (state.abort) state.abort.abort();
  }
}

function setBusy(on) {
  state.running = on;
  if (on) state.cancelled = false;
  for (const control of ui.settings.querySelectorAll('select, input, button')) control.disabled = on;
  ui.cancelButton.disabled = !on;
  if (!on) ui.previewButton.disabled = ui.source.value !== 'Platen';
  ui.bed.classList.toggle('busy', on);
}

// ---- the scanner's status ---------------------------------------------------

const STATES = { Idle: 'ready', Processing: 'busy scanning', Stopped: 'stopped', Testing: 'testing' };
const FEEDER = { ScannerAdfLoaded: 'paper in the feeder', ScannerAdfEmpty: 'feeder empty' };

async function refreshStatus() {
  let shown;
  try {
    const response = await fetch('/eSCL/ScannerStatus', { cache: 'no-store' });
    const doc = new DOMParser().parseFromString(await response.text(), 'application/xml');
    const scanner = text(doc, 'State');
    const feeder = text(doc, 'AdfState');
    shown = (STATES[scanner] || scanner || 'unknown') + (feeder ? ', ' + (FEEDER[feeder] || feeder) : '');
  } catch (error) {
    shown = 'not reachable';
  }
  // Set only when it changes, so that a screen reader announces changes only.
  if (ui.state.textContent !== shown) ui.state.textContent = shown;
}

// ---- start ------------------------------------------------------------------

async function start() {
  for (const id of ['model', 'facts', 'state', 'settings', 'source', 'mode', 'resolution', 'paper', 'left', 'top',
                    'width', 'height', 'brightness', 'contrast', 'format', 'bed', 'area', 'preview', 'message',
                    'progress', 'received', 'downloads', 'pages']) {
    ui[id] = $(id);
  }
  Object.assign(ui, { previewButton: $('preview-button'), cancelButton: $('cancel-button'),
                      formatHint: $('format-hint'), bedHint: $('bed-hint') });
  let facts;
  try {
    const response = await fetch('/eSCL/ScannerCapabilities');
    if (!response.ok) throw new Error(await reason(response));
    facts = readCapabilities(await response.text());
  } catch (error) {
    say('The scanner\'s capabilities cannot be read: ' + error.message);
    return;
  }
  ui.model.textContent = facts.model || 'Scanner';
  document.title = (facts.model || 'Scanner') + ' — scan';
  const names = { Platen: 'flatbed', Feeder: 'document feeder' };
  ui.facts.textContent = Object.keys(state.sources).map((s) => names[s]).join(' and ') +
    (facts.serial ? ' · serial number ' + facts.serial : '');
  fill(ui.source, Object.keys(state.sources), (s) => (s === 'Platen' ? 'Flatbed' : 'Feeder'), 'Platen');
  offerTone('Brightness');
  offerTone('Contrast');
  offerSource();
  ui.source.addEventListener('change', offerSource);
  ui.format.addEventListener('change', describeFormat);
  ui.paper.addEventListener('change', () => choosePaper(ui.paper.value));
  for (const input of [ui.left, ui.top, ui.width, ui.height]) input.addEventListener('change', areaFromFields);
  ui.settings.addEventListener('submit', (event) => { event.preventDefault(); scan(); });
  ui.previewButton.addEventListener('click', preview);
  ui.cancelButton.addEventListener('click', cancel);
  watchDrawing();
  refreshStatus();
  setInterval(() => { if (!document.hidden) refreshStatus(); }, STATUS_EVERY_MS);
}

document.addEventListener('DOMContentLoaded', start);
