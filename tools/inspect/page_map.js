// The map of slots: a canvas that is zoomed and moved with mouse and keyboard.

const MAX_CELL_PIXELS = 72, GUTTER = 74, STEPS = 5;

class SlotMap {
  constructor(host, cells, onChoose) {
    Object.assign(this, {host, cells, onChoose, scale: 1, x: 0, y: 0, chosen: -1, hovered: -1});
    this.byBytes = Boolean(cells.pool);
    this.matches = null;  // by cell, while a search is active
    this.pointers = new Map();
    this.build();
    new ResizeObserver(() => this.layOut()).observe(this.canvas);
    matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => this.draw());
    this.layOut();
  }

  build() {
    const {cells} = this;
    const mode = (byBytes, text) => element('button', {type: 'button', 'aria-pressed': String(this.byBytes === byBytes),
      onclick: event => this.colorBy(byBytes, event.target)}, text);
    const zoom = (label, text, onclick) =>
      element('button', {type: 'button', 'aria-label': label, title: label, onclick}, text);
    this.canvas = element('canvas', {tabindex: 0, role: 'application', 'aria-label': 'Map of slots'});
    this.tip = element('div', {class: 'tip', hidden: true});
    this.legend = element('p', {class: 'legend'});
    this.status = element('span', {'aria-live': 'polite'});
    this.range = element('span', {class: 'hint'});
    const per = cells.perCell === 1 ? 'one slot to a cell' : `${shown(cells.perCell)} slots to a cell`;
    this.host.append(
      element('div', {class: 'bar'}, element('h3', {}, 'Map'), element('span', {class: 'count'}, per),
        ...(cells.pool ? [element('span', {class: 'group'}, mode(true, 'Live bytes'), mode(false, 'Status'))] : []),
        element('span', {class: 'group'}, zoom('Zoom out', '\u2212', () => this.zoom(1 / 1.6)),
          zoom('Show all slots', 'All', () => this.reset()), zoom('Zoom in', '+', () => this.zoom(1.6)))),
      this.legend, element('div', {class: 'map'}, this.canvas, this.tip),
      element('p', {class: 'status'}, this.status, this.range),
      element('p', {class: 'status hint'},
        'Click a cell, then: wheel or + \u2212 zoom, drag moves, arrow keys choose, 0 shows all.'));
    this.showLegend();
    this.listen();
  }

  colorBy(byBytes, button) {
    this.byBytes = byBytes;
    for (const other of button.parentNode.children) other.setAttribute('aria-pressed', String(other === button));
    this.showLegend();
    this.draw();
  }

  listen() {
    const {canvas} = this;
    canvas.addEventListener('keydown', event => this.onKey(event));
    canvas.addEventListener('wheel', event => this.onWheel(event), {passive: false});
    canvas.addEventListener('dblclick', event => this.zoom(2, event.offsetX, event.offsetY));
    canvas.addEventListener('pointerdown', event => this.onPress(event));
    canvas.addEventListener('pointermove', event => this.onMove(event));
    for (const name of ['pointerup', 'pointercancel']) canvas.addEventListener(name, event => this.onRelease(event));
    canvas.addEventListener('pointerleave', () => this.hover(-1));
  }

  // The height follows the number of cells, up to a part of the window. Rows of full maps have multiples of 16 cells,
  // since a data block has 16 slots.
  layOut() {
    const {canvas, cells} = this;
    const width = canvas.clientWidth || 640, inner = width - GUTTER;
    const most = clamp(innerHeight * 0.5, 200, 460);
    let columns = Math.ceil(Math.sqrt(cells.cells * inner / most));
    columns = columns > 16 ? Math.ceil(columns / 16) * 16 : 16;
    this.columns = columns;
    this.rows = Math.ceil(cells.cells / columns);
    this.unit = Math.min(inner / columns, 30);
    this.width = width;
    this.height = Math.max(Math.ceil(this.rows * this.unit), 64);
    const ratio = devicePixelRatio || 1;
    canvas.width = Math.round(width * ratio);
    canvas.height = Math.round(this.height * ratio);
    canvas.style.height = `${this.height}px`;
    this.context = canvas.getContext('2d');
    this.context.setTransform(ratio, 0, 0, ratio, 0, 0);
    this.move(0, 0);
  }

  get pixels() { return this.unit * this.scale; }
  get mostScale() { return Math.max(MAX_CELL_PIXELS / this.unit, 1); }

  // ---- Where the view is

  move(byX, byY) {
    const inner = this.width - GUTTER;
    this.x = clamp(this.x + byX, 0, Math.max(this.columns * this.pixels - inner, 0));
    this.y = clamp(this.y + byY, 0, Math.max(this.rows * this.pixels - this.height, 0));
    this.canvas.classList.toggle('zoomed', this.scale > 1);
    this.draw();
  }
  zoom(by, atX = (this.width + GUTTER) / 2, atY = this.height / 2) {
    const scale = clamp(this.scale * by, 1, this.mostScale), ratio = scale / this.scale;
    const left = atX - GUTTER;
    this.scale = scale;
    this.move((this.x + left) * ratio - left - this.x, (this.y + atY) * ratio - atY - this.y);
  }
  reset() {
    this.scale = 1;
    this.move(0, 0);
  }
  reveal(i) {
    const pixels = this.pixels, left = i % this.columns * pixels, top = Math.floor(i / this.columns) * pixels;
    const inner = this.width - GUTTER;
    this.x = clamp(this.x, left + pixels - inner, left);
    this.y = clamp(this.y, top + pixels - this.height, top);
    this.move(0, 0);
  }
  choose(i, isFromTable = false) {
    this.chosen = i;
    this.status.textContent = i < 0 ? '' : this.cells.text(i);
    if (i >= 0) this.reveal(i);
    else this.draw();
    if (!isFromTable) this.onChoose(i);
  }
  cellAt(atX, atY) {
    const column = Math.floor((atX - GUTTER + this.x) / this.pixels), row = Math.floor((atY + this.y) / this.pixels);
    const i = row * this.columns + column;
    return atX >= GUTTER && column < this.columns && row >= 0 && i < this.cells.cells ? i : -1;
  }

  // ---- Mouse and keyboard

  onKey(event) {
    const page = Math.max(Math.floor(this.height / this.pixels) - 1, 1) * this.columns;
    const steps = {ArrowLeft: -1, ArrowRight: 1, ArrowUp: -this.columns, ArrowDown: this.columns, PageUp: -page,
      PageDown: page, Home: -Infinity, End: Infinity};
    if (event.ctrlKey || event.metaKey || event.altKey) return;
    if (event.key in steps)
      this.choose(clamp((this.chosen < 0 ? 0 : this.chosen) + steps[event.key], 0, this.cells.cells - 1));
    else if (event.key === '+' || event.key === '=') this.zoomAtChosen(1.6);
    else if (event.key === '-') this.zoomAtChosen(1 / 1.6);
    else if (event.key === '0') this.reset();
    else if (event.key === 'Escape') this.choose(-1);
    else return;
    event.preventDefault();
  }
  zoomAtChosen(by) {
    if (this.chosen < 0) return this.zoom(by);
    const pixels = this.pixels;
    this.zoom(by, GUTTER + (this.chosen % this.columns + 0.5) * pixels - this.x,
      (Math.floor(this.chosen / this.columns) + 0.5) * pixels - this.y);
  }
  // A wheel scrolls the page until the map has the focus.
  onWheel(event) {
    if (document.activeElement !== this.canvas && !event.ctrlKey) return;
    event.preventDefault();
    this.zoom(Math.exp(-event.deltaY / 300), event.offsetX, event.offsetY);
  }
  onPress(event) {
    this.canvas.focus({preventScroll: true});
    if (event.isTrusted) this.canvas.setPointerCapture(event.pointerId);
    this.pointers.set(event.pointerId, event);
    this.hasMoved = false;
  }
  onMove(event) {
    const before = this.pointers.get(event.pointerId);
    if (!before) return this.hover(this.cellAt(event.offsetX, event.offsetY), event);
    const byX = before.offsetX - event.offsetX, byY = before.offsetY - event.offsetY;
    if (!this.hasMoved && Math.hypot(byX, byY) < 4) return;
    this.hasMoved = true;
    this.canvas.classList.add('dragging');
    this.hover(-1);
    if (this.pointers.size === 1) this.move(byX, byY);
    else this.pinch(before, event);
    this.pointers.set(event.pointerId, event);
  }
  pinch(before, event) {
    const other = [...this.pointers.values()].find(pointer => pointer.pointerId !== event.pointerId);
    const distance = ({offsetX, offsetY}) => Math.max(Math.hypot(offsetX - other.offsetX, offsetY - other.offsetY), 1);
    const middleX = (event.offsetX + other.offsetX) / 2, middleY = (event.offsetY + other.offsetY) / 2;
    this.zoom(distance(event) / distance(before), middleX, middleY);
  }
  onRelease(event) {
    this.canvas.classList.remove('dragging');
    if (this.pointers.delete(event.pointerId) && event.type === 'pointerup' && !this.hasMoved)
      this.choose(this.cellAt(event.offsetX, event.offsetY));
  }
  hover(i, event) {
    if (i !== this.hovered) {
      this.hovered = i;
      this.tip.hidden = i < 0;
      if (i >= 0)
        this.tip.replaceChildren(element('b', {}, this.cells.title(i)), ...this.cells.lines(i).map(([use, text]) =>
          element('div', {}, ...(use === undefined || this.byBytes ? [] : [this.swatch(use)]), text)));
      this.draw();
    }
    if (i < 0) return;
    const {offsetWidth: width, offsetHeight: height} = this.tip;
    this.tip.style.left = `${clamp(event.offsetX + 14, 0, Math.max(this.width - width, 0))}px`;
    this.tip.style.top = `${event.offsetY > this.height / 2 ? event.offsetY - height - 12 : event.offsetY + 16}px`;
  }

  // ---- Drawing

  color(name) { return getComputedStyle(document.documentElement).getPropertyValue(name).trim(); }
  // Slots that were not issued, and those without chunks, are hollow.
  swatch(use) {
    if (use === 5) return element('i', {class: 'hollow'});
    return element('i', {style: `background:var(--${this.byBytes ? 'heat' : 'use'}${use})`});
  }
  showLegend() {
    const item = (step, text) => element('span', {}, this.swatch(step), text);
    const sums = this.cells.uses.map(column => column ? column.reduce((sum, count) => sum + count, 0) : 0);
    this.legend.replaceChildren(...(this.byBytes
      ? [...Array(STEPS).keys()].map(step => item(step, `${100 * step / STEPS} to ${100 * (step + 1) / STEPS} %`))
          .concat(item(5, 'no chunks'))
      : this.cells.useNames.flatMap((name, use) => sums[use] ? [item(use, `${shown(sums[use])} ${name}`)] : [])));
    if (this.cells.strays.size)
      this.legend.append(element('span', {}, element('i', {class: 'stray'}), 'not on the list of its status'));
  }
  palette() {
    const colors = name => [0, 1, 2, 3, 4].map(i => this.color(`--${name}${i}`));
    const palette = {uses: colors('use'), heat: colors('heat')};
    for (const name of ['edge', 'muted', 'ink', 'bad', 'paper']) palette[name] = this.color(`--${name}`);
    return palette;
  }
  draw() {
    const {context, pixels, columns, cells} = this, palette = this.palette();
    context.clearRect(0, 0, this.width, this.height);
    const firstRow = Math.floor(this.y / pixels), firstColumn = Math.floor(this.x / pixels);
    const lastRow = Math.min(Math.ceil((this.y + this.height) / pixels), this.rows);
    const lastColumn = Math.min(Math.ceil((this.x + this.width - GUTTER) / pixels), columns);
    context.save();
    context.beginPath();
    context.rect(GUTTER, 0, this.width - GUTTER, this.height);
    context.clip();
    for (let row = firstRow; row < lastRow; ++row)
      for (let column = firstColumn; column < lastColumn; ++column) {
        const i = row * columns + column;
        if (i < cells.cells) this.drawCell(i, GUTTER + column * pixels - this.x, row * pixels - this.y, palette);
      }
    for (const [i, color] of [[this.hovered, palette.muted], [this.chosen, palette.ink]]) this.outline(i, color);
    context.restore();
    this.drawLabels(firstRow, lastRow, palette);
    this.showRange(cells.first(firstRow * columns), cells.last(Math.min(lastRow * columns, cells.cells) - 1));
  }
  showRange(first, last) {
    const all = shown(this.cells.slots);
    const isPart = this.scale > 1;
    this.range.textContent = isPart ? `rows of slots ${shown(first)} to ${shown(last)} of ${all}` : `${all} slots`;
  }
  drawCell(i, x, y, palette) {
    const {context, cells, pixels} = this, gap = pixels >= 14 ? 2 : pixels >= 4 ? 1 : 0, side = pixels - gap;
    const alpha = this.matches && !this.matches[i] ? 0.18 : 1;
    context.globalAlpha = alpha;
    const fill = (color, top, height) => {
      context.fillStyle = color;
      context.fillRect(x, top, side, height);
    };
    const live = this.byBytes ? cells.live(i) : undefined;
    if (live !== undefined) fill(palette.heat[Math.min(Math.floor(live * STEPS), STEPS - 1)], y, side);
    else if (this.byBytes || cells.count(5, i) === cells.size(i)) this.drawHollow(x, y, side, palette);
    else this.drawUses(i, y, side, fill, palette);
    context.globalAlpha = alpha;
    if (cells.strays.has(i)) {
      context.strokeStyle = palette.bad;
      context.lineWidth = Math.min(2, pixels / 3);
      context.strokeRect(x + 1, y + 1, side - 2, side - 2);
    }
    if (pixels >= 40) this.drawNumber(i, x + side / 2, y + side / 2, palette);
    context.globalAlpha = 1;
  }
  // Each use has a part of the cell's height.
  drawUses(i, y, side, fill, palette) {
    const {cells} = this;
    let bottom = y + side;
    for (let use = 0; use < 5; ++use) {
      const height = side * cells.count(use, i) / cells.size(i);
      if (height) fill(palette.uses[use], bottom -= height, height);
    }
  }
  drawHollow(x, y, side, palette) {
    const {context} = this, isSmall = side < 5;
    context.globalAlpha *= isSmall ? 0.25 : 0.6;
    context[isSmall ? 'fillStyle' : 'strokeStyle'] = palette.edge;
    context.lineWidth = 1;
    if (isSmall) context.fillRect(x, y, side, side);
    else context.strokeRect(x + 0.5, y + 0.5, side - 1, side - 1);
  }
  // On a plate, since no ink can be read on all colours.
  drawNumber(i, x, y, palette) {
    const {context} = this, text = shown(this.cells.first(i));
    context.font = '11px ui-sans-serif, system-ui, sans-serif';
    const width = context.measureText(text).width + 8;
    if (width > this.pixels - 4) return;
    context.fillStyle = palette.paper;
    context.fillRect(x - width / 2, y - 8, width, 16);
    context.fillStyle = palette.ink;
    context.textAlign = 'center';
    context.textBaseline = 'middle';
    context.fillText(text, x, y + 0.5);
  }
  outline(i, color) {
    if (i < 0) return;
    const {context, pixels} = this, side = Math.max(pixels, 5) - 1;
    context.strokeStyle = color;
    context.lineWidth = 2;
    const x = GUTTER + i % this.columns * pixels - this.x, y = Math.floor(i / this.columns) * pixels - this.y;
    context.strokeRect(x, y, side, side);
  }
  drawLabels(firstRow, lastRow, palette) {
    const {context, pixels} = this, every = Math.ceil(18 / pixels);
    context.font = '11px ui-sans-serif, system-ui, sans-serif';
    context.fillStyle = palette.muted;
    context.textAlign = 'right';
    context.textBaseline = 'middle';
    for (let row = Math.ceil(firstRow / every) * every; row < lastRow; row += every) {
      const top = row * pixels - this.y, y = Math.max(top + Math.min(pixels / 2, 9), 7);
      if (top + pixels < Math.min(pixels, 14)) continue;  // the row is almost hidden
      context.fillText(shown(this.cells.first(row * this.columns)), GUTTER - 10, y);
    }
  }
}
