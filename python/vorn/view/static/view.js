// The slice view's page: controls from /api/info, slices over the WebSocket.
// window.vornView is the page's interface for scripts: set(stage, parameter, value) and
// show(axis, index) answer a Promise once the answering slice is drawn (or refused);
// lastLatencyMs is the time from the last answered event to its pixels drawn, lastDrawMs the
// page's part of it (decoding and painting the answer).
"use strict";
(function () {
  const token = new URLSearchParams(location.search).get("token") || "";
  const $ = (id) => document.getElementById(id);
  const TYPES = { uint8: Uint8Array, int16: Int16Array, float32: Float32Array };

  const state = { axis: 2, index: 0, size: [1, 1, 1], range: [0, 1], output: null, input: null,
                  nextId: 1, pending: [], socket: null, controls: {} };
  const api = {
    lastLatencyMs: null, lastDrawMs: null, lastCost: null, lastError: null, frames: 0, info: null,
    set(stage, parameter, value) {
      const control = state.controls[stage + "." + parameter];
      if (control) control(String(value));
      return request({ [stage + "." + parameter]: String(value) });
    },
    show(axis, index) { state.axis = axis; state.index = index; syncSlice(); return request({}); },
    // The last output slice: {shape, dtype, values} with values a plain array, row by row.
    output() {
      const o = state.output;
      return o && { shape: o.shape, dtype: o.dtype, values: Array.from(o.values) };
    },
  };
  window.vornView = api;

  function request(changes) {
    const id = state.nextId++;
    const message = { id, axis: state.axis, index: state.index, set: changes };
    return new Promise((resolve) => {
      state.pending.push({ id, start: performance.now(), resolve });
      state.socket.send(JSON.stringify(message));
    });
  }

  // An answer settles its own request and every one it superseded.
  function settle(id, outcome) {
    const now = performance.now();
    const mine = state.pending.find((p) => p.id === id);
    if (mine) api.lastLatencyMs = now - mine.start;
    state.pending = state.pending.filter((p) => {
      if (p.id > id) return true;
      p.resolve(Object.assign({ id, latencyMs: now - p.start }, outcome));
      return false;
    });
  }

  function decode(buffer) {
    const view = new DataView(buffer);
    const length = view.getUint32(0, true);
    const header = JSON.parse(new TextDecoder().decode(new Uint8Array(buffer, 4, length)));
    let offset = 4 + length;
    const take = (shape, dtype) => {
      const count = shape[0] * shape[1];
      const values = new TYPES[dtype](buffer, offset, count);
      offset += Math.ceil((count * values.BYTES_PER_ELEMENT) / 8) * 8;
      return { shape, dtype, values };
    };
    const output = take(header.shape, header.dtype);
    const input = header.inputShape ? take(header.inputShape, header.inputDtype) : null;
    return { header, output, input };
  }

  function isMask(image) {
    if (image.dtype !== "uint8") return false;
    for (let k = 0; k < image.values.length; ++k) if (image.values[k] > 1) return false;
    return true;
  }

  function draw() {
    const out = state.output;
    if (!out) return;
    const mask = isMask(out);
    const overlay = mask && $("overlay").checked && state.input;
    $("overlay").disabled = !mask;
    $("inputFigure").style.display = overlay ? "none" : "";
    $("outputCaption").textContent = overlay ? "output over input" : "output";
    const level = Number($("level").value), width = Math.max(Number($("window").value), 1e-12);
    const low = level - width / 2;
    const gray = (v) => Math.max(0, Math.min(255, ((v - low) / width) * 255));
    // The input beside the output changes only with the slice or the window: a slider over a
    // parameter repaints the output alone.
    const shown = overlay ? null : { input: state.input, low, width };
    const painted = state.painted;
    const same = painted && shown && painted.input === shown.input && painted.low === low &&
      painted.width === width;
    if (state.input && shown && !same) paint($("input"), state.input, (rgba, j, v) => {
      rgba[j] = rgba[j + 1] = rgba[j + 2] = gray(v);
    });
    state.painted = shown;
    if (overlay) {
      const under = state.input.values;
      paint($("output"), out, (rgba, j, v, k) => {
        const g = gray(under[k]);
        rgba[j] = v ? 0.5 * g + 127 : g;
        rgba[j + 1] = rgba[j + 2] = v ? 0.5 * g : g;
      });
    } else if (mask) {
      paint($("output"), out, (rgba, j, v) => { rgba[j] = rgba[j + 1] = rgba[j + 2] = v ? 255 : 0; });
    } else {
      paint($("output"), out, (rgba, j, v) => { rgba[j] = rgba[j + 1] = rgba[j + 2] = gray(v); });
    }
  }

  // color(rgba, j, value, k) writes the red, green and blue of pixel k at rgba[j..j + 2].
  function paint(canvas, image, color) {
    const [h, w] = image.shape;
    if (canvas.width !== w || canvas.height !== h) { canvas.width = w; canvas.height = h; }
    const context = canvas.getContext("2d");
    // One opaque ImageData per canvas and size: a fresh one per frame costs a large allocation.
    if (!canvas.pixels || canvas.pixels.width !== w || canvas.pixels.height !== h) {
      canvas.pixels = context.createImageData(w, h);
      canvas.pixels.data.fill(255);
    }
    const rgba = canvas.pixels.data;
    const values = image.values;
    for (let k = 0, j = 0; k < values.length; ++k, j += 4) color(rgba, j, values[k], k);
    context.putImageData(canvas.pixels, 0, 0);
  }

  function describe(header) {
    const c = header.cost;
    const names = c.recomputed.length ? " (" + c.recomputed.join(", ") + ")" : "";
    const held = (header.heldBytes / 1048576).toFixed(1);
    return (c.cached ? "kept slice: " : "") + c.operators + " operators recomputed" + names +
      ", " + c.pixels.toLocaleString("en") + " pixels computed, " + c.ms.toFixed(1) +
      " ms computing, " + api.lastLatencyMs.toFixed(1) + " ms to pixels drawn; the view holds " +
      held + " MiB";
  }

  function onMessage(event) {
    if (typeof event.data === "string") {
      const answer = JSON.parse(event.data);
      api.lastError = answer.error;
      $("error").textContent = answer.error;
      settle(answer.id, { error: answer.error });
      return;
    }
    const received = performance.now();
    const { header, output, input } = decode(event.data);
    state.output = output;
    if (input) state.input = input;
    draw();
    api.lastDrawMs = performance.now() - received;
    api.frames += 1;
    api.lastError = null;
    api.lastCost = header.cost;
    $("error").textContent = "";
    settle(header.id, { cost: header.cost });
    $("cost").textContent = describe(header);
  }

  function syncSlice() {
    $("axis").value = state.axis;
    const last = state.size[state.axis] - 1;
    $("index").max = $("indexText").max = last;
    state.index = Math.min(state.index, last);
    $("index").value = $("indexText").value = state.index;
  }

  function row(label, help, ...inputs) {
    const line = document.createElement("div");
    line.className = "row";
    line.title = help;
    const name = document.createElement("label");
    name.textContent = label;
    line.append(name, ...inputs);
    return line;
  }

  function parameterRow(stage, parameter) {
    const text = document.createElement("input");
    text.type = "text";
    text.value = parameter.value;
    let chooser;
    if (parameter.choices) {
      chooser = document.createElement("select");
      for (const choice of parameter.choices) chooser.add(new Option(choice, choice));
      chooser.value = parameter.value;
    } else {
      chooser = document.createElement("input");
      chooser.type = "range";
      if (parameter.range) {
        [chooser.min, chooser.max, chooser.step] = parameter.range;
        chooser.value = parameter.value;
      } else {
        chooser.disabled = true;
      }
    }
    const show = (value) => { text.value = value; if (!chooser.disabled) chooser.value = value; };
    state.controls[stage.name + "." + parameter.name] = show;
    const send = (value) => api.set(stage.name, parameter.name, value);
    chooser.addEventListener("input", () => send(chooser.value));
    text.addEventListener("change", () => send(text.value));
    return row(parameter.name, parameter.help, chooser, text);
  }

  function buildStages(stages) {
    for (const stage of stages) {
      const box = document.createElement("fieldset");
      const legend = document.createElement("legend");
      legend.textContent = stage.name;
      const summary = document.createElement("p");
      summary.className = "summary";
      summary.textContent = stage.summary;
      box.append(legend, summary);
      for (const parameter of stage.parameters) box.append(parameterRow(stage, parameter));
      $("stages").append(box);
    }
  }

  function buildDisplay(range) {
    const [low, high] = range;
    const span = high - low || 1;
    const step = span / 500;
    Object.assign($("window"), { min: step, max: 2 * span, step, value: span });
    Object.assign($("level"), { min: low - span / 2, max: high + span / 2, step, value: (low + high) / 2 });
    const show = () => {
      $("windowText").textContent = Number($("window").value).toPrecision(4);
      $("levelText").textContent = Number($("level").value).toPrecision(4);
      draw();
    };
    for (const id of ["window", "level", "overlay"]) $(id).addEventListener("input", show);
    show();
  }

  function buildSlice() {
    $("size").textContent = state.size.join("×");
    $("axis").addEventListener("change", () => {
      state.axis = Number($("axis").value);
      state.index = Math.floor(state.size[state.axis] / 2);
      syncSlice();
      request({});
    });
    const move = (value) => { state.index = Number(value); syncSlice(); request({}); };
    $("index").addEventListener("input", () => move($("index").value));
    $("indexText").addEventListener("change", () => move($("indexText").value));
    state.index = Math.floor(state.size[state.axis] / 2);
    syncSlice();
  }

  async function start() {
    const info = await (await fetch("api/info?token=" + encodeURIComponent(token))).json();
    api.info = info;
    state.size = info.size;
    state.range = info.range;
    buildSlice();
    buildDisplay(info.range);
    buildStages(info.stages);
    const scheme = location.protocol === "https:" ? "wss:" : "ws:";
    const socket = new WebSocket(scheme + "//" + location.host + "/ws?token=" + encodeURIComponent(token));
    socket.binaryType = "arraybuffer";
    socket.onmessage = onMessage;
    socket.onclose = () => { $("error").textContent = "the view's server has stopped"; };
    state.socket = socket;
    await new Promise((resolve) => { socket.onopen = resolve; });
    await request({});
    api.ready = true;
  }

  api.started = start();
})();
