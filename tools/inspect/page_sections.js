// Fills the parts of each section, and connects them.

function numbers(name, value, cell, width) {
  return {name, isNumber: true, value, text: row => shown(value(row)), cell, width};
}

function slotColumns(cells) {
  const columns = cells.perCell === 1 ? [numbers('slot', i => cells.first(i))] :
    [numbers('first', i => cells.first(i)), numbers('last', i => cells.last(i))];
  if (cells.perCell === 1)
    columns.push({name: 'status', text: i => cells.useNames.filter((_, use) => cells.count(use, i)).join() + (cells.strays.has(i) ? ', stray' : '') +
      (cells.pool && cells.pool.current === i ? ', current' : ''), width: 18});
  else
    cells.useNames.forEach((name, use) => {
      if (cells.uses[use]) columns.push(numbers(name, i => cells.count(use, i)));
    });
  if (!cells.pool) return columns;
  const {live, used, room} = cells.pool;
  const percent = i => cells.live(i) === undefined ? -1 : Math.round(100 * cells.live(i));
  const meter = i => percent(i) < 0 ? [''] : [element('span', {class: 'meter'}, element('i', {style: `width:${percent(i)}%`})), `${percent(i)} %`];
  columns.push({name: 'live', isNumber: true, value: percent, text: i => percent(i) < 0 ? '' : `${percent(i)} %`, cell: meter, width: 22});
  columns.push(numbers('live bytes', i => live[i]), numbers('deleted', i => used[i] - live[i]),
    numbers('without chunk', i => Math.max(room[i] - used[i], 0)));
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
    holds: (i, slot) => cells.first(i) <= slot && slot <= cells.last(i),
    placeholder: `a slot, ${cells.perCell === 1 ? 'free' : 'free>0'}${cells.pool ? ', live<50' : ''}`,
    onChoose: i => map.choose(i, true),
    onSearch: order => {
      map.matches = order && new Uint8Array(cells.cells);
      for (const i of order || []) map.matches[i] = 1;
      map.draw();
    }});
  if (!data.records) return;
  const {records} = data, used = data.uses.slice(0, 4).reduce((sum, column, use) => sum + (column && use !== 1 ? column.reduce((a, b) => a + b, 0) : 0), 0);
  const n = records.rows.length;
  new DataTable(part('records'), {
    title: 'Records', columns: recordColumns(records), count: n, note: n < used ? `the first ${shown(n)}` : shown(n),
    holds: (row, id) => Number(records.rows[row][0]) === id || records.rows[row].includes(String(id)),
    placeholder: 'a record, a text, FIELD>10',
    onChoose: row => {
      const i = Math.floor(Number(records.rows[row][0]) / cells.perCell);
      map.choose(i, true);
      slots.choose(i);
    }});
}

for (const section of document.querySelectorAll('section')) show(section);
