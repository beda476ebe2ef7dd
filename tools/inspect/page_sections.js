// Fills the parts of each section, and connects them.

function numbers(name, value) {
  return {name, isNumber: true, value, text: row => shown(value(row))};
}

function slotColumns(cells) {
  const columns = cells.perCell === 1 ? [numbers('slot', i => cells.first(i))] :
    [numbers('first', i => cells.first(i)), numbers('last', i => cells.last(i))];
  const status = i => cells.useNames.filter((_, use) => cells.count(use, i)).join() +
    (cells.strays.has(i) ? ', stray' : '') + (cells.pool && cells.pool.current === i ? ', current' : '');
  if (cells.perCell === 1)
    columns.push({name: 'status', text: status, width: 18});
  else
    cells.useNames.forEach((name, use) => {
      if (cells.uses[use]) columns.push(numbers(name, i => cells.count(use, i)));
    });
  if (!cells.pool) return columns;
  const percent = i => Math.round(100 * cells.live(i));  // NaN without chunks
  const text = i => isNaN(percent(i)) ? '' : `${percent(i)} %`;
  const bar = i => element('span', {class: 'meter'}, element('i', {style: `width:${percent(i)}%`}));
  const cell = i => text(i) ? [bar(i), text(i)] : [];
  columns.push({name: 'live', isNumber: true, value: percent, text, cell, width: 22});
  columns.push(numbers('live bytes', i => cells.pool.live[i]), numbers('deleted', i => cells.deleted(i)),
    numbers('without chunk', i => cells.unused(i)));
  return columns;
}

function recordColumns(records) {
  return records.columns.map(({name, number}, at) => ({
    name, isNumber: number, text: row => records.rows[row][at],
    value: row => records.rows[row][at] === '' ? NaN : Number(records.rows[row][at])}));
}

function show(section) {
  const data = JSON.parse(section.querySelector('script[type="application/json"]').textContent);
  const part = name => section.querySelector(`[data-part=${name}]`);
  if (!data.cells) return;
  const cells = new Cells(data);
  let slots = null;
  const map = new SlotMap(part('map'), cells, i => slots.choose(i));
  slots = new DataTable(part('slots'), {
    title: 'Slots', columns: slotColumns(cells), count: cells.cells,
    note: cells.perCell === 1 ? shown(cells.slots) : `${shown(cells.slots)} in ranges of ${shown(cells.perCell)}`,
    holds: (i, slot) => cells.holds(i, slot),
    placeholder: `a slot, ${cells.perCell === 1 ? 'free' : 'free>0'}${cells.pool ? ', live<50' : ''}`,
    onChoose: i => map.choose(i, true),
    onSearch: order => {
      map.matches = order && new Uint8Array(cells.cells);
      for (const i of order || []) map.matches[i] = 1;
      map.draw();
    }});
  if (!data.records) return;
  const {records} = data, n = records.rows.length;
  new DataTable(part('records'), {
    title: 'Records', columns: recordColumns(records), count: n,
    note: records.isAll ? shown(n) : `the first ${shown(n)}`,
    holds: (row, id) => Number(records.rows[row][0]) === id || records.rows[row].includes(String(id)),
    placeholder: 'a record, a text, FIELD>10',
    onChoose: row => {
      const i = Math.floor(Number(records.rows[row][0]) / cells.perCell);
      map.choose(i, true);
      slots.choose(i);
    }});
}

for (const section of document.querySelectorAll('section')) show(section);
