// What the page was given, and what of it lies in a range of time. Times are nanoseconds.

const othersName = '(others)';

/** The data of the page as texts and trees. */
export function decode(raw) {
  const nameOf = (name) => (name < 0 ? othersName : raw.names[name]);
  return {
    ...raw,
    ...decodeStacks(raw),
    times: raw.times.map(([name, cells, durations]) => ({ name: nameOf(name), cells, durations })),
    contexts: raw.contexts.map(([name, key, values]) => ({ name: nameOf(name), key, values })),
    counters: raw.counters.map(([name, key, cells]) => ({ name: nameOf(name), key, cells })),
  };
}

/** The threads' names, and the nodes of their stacks. */
export function decodeStacks(raw) {
  const nameOf = (name) => (name < 0 ? othersName : raw.names[name]);
  const severalProcesses = new Set(raw.threads.map(([process]) => process)).size > 1;
  const threads = raw.threads.map(([process, name]) =>
    severalProcesses && process ? `${process} / ${name}` : name,
  );
  if (raw.moreThreads > 0) threads.push(`(${raw.moreThreads} more threads)`);
  return { threads, nodes: decodeTree(raw.tree, threads, nameOf) };
}

function decodeTree(tree, threads, nameOf) {
  const nodes = [];
  for (const [i, [parent, name, ...cells]] of tree.entries()) {
    const above = nodes[parent];
    nodes.push({
      parent,
      name: above ? nameOf(name) : threads[i],
      thread: above ? above.thread : i,
      depth: above ? above.depth + 1 : 0,
      cells,
    });
  }
  return nodes;
}

/** The same tree with equal stacks of all threads put together. */
export function mergedTree(nodes) {
  const merged = [{ parent: -1, name: 'all threads', thread: -1, depth: 0, cells: [] }];
  const places = new Map();
  const placeOf = nodes.map(() => 0);
  for (const [i, node] of nodes.entries()) {
    if (node.parent < 0) continue;
    const parent = placeOf[node.parent];
    const key = `${parent} ${node.name}`;
    if (!places.has(key)) {
      places.set(key, merged.length);
      merged.push({ parent, name: node.name, thread: -1, depth: merged[parent].depth + 1, cells: [] });
    }
    placeOf[i] = places.get(key);
    merged[placeOf[i]].cells.push(...node.cells);
  }
  return merged;
}

/** Calls, self time and time with all that was called of each node, in bins from..to-1. */
export function measureTree(nodes, { from, to }) {
  const calls = new Float64Array(nodes.length);
  const self = new Float64Array(nodes.length);
  for (const [i, { cells }] of nodes.entries()) {
    for (let at = 0; at < cells.length; at += 3) {
      if (cells[at] < from || cells[at] >= to) continue;
      calls[i] += cells[at + 1];
      self[i] += cells[at + 2];
    }
  }
  const total = self.slice();
  for (let i = nodes.length - 1; i >= 0; i -= 1) {
    if (nodes[i].parent >= 0) total[nodes[i].parent] += total[i];
  }
  return { calls, self, total };
}

/** The children of each node, widest first, without those that have no time. */
export function childrenOf(nodes, total) {
  const children = nodes.map(() => []);
  for (const [i, node] of nodes.entries()) {
    if (node.parent >= 0 && total[i] > 0) children[node.parent].push(i);
  }
  for (const list of children) list.sort((a, b) => total[b] - total[a] || a - b);
  return children;
}

/** A row for each name that has events or time in the range. */
export function measureNames(times, buckets, { from, to }) {
  const rows = [];
  for (const { name, cells, durations } of times) {
    const row = { name, calls: 0, total: 0, self: 0, max: 0, counts: new Map() };
    for (let at = 1; at < cells.length; at += 5) {
      if (cells[at] < from || cells[at] >= to) continue;
      row.calls += cells[at + 1];
      row.total += cells[at + 2];
      row.self += cells[at + 3];
      row.max = Math.max(row.max, cells[at + 4]);
    }
    if (row.calls === 0 && row.total === 0) continue;
    for (let at = 1; at < durations.length; at += 2) {
      const bin = durations[at] >> 8;
      if (bin < from || bin >= to) continue;
      const bucket = durations[at] & 255;
      row.counts.set(bucket, (row.counts.get(bucket) ?? 0) + durations[at + 1]);
    }
    row.p50 = quantile(row, buckets, 0.5);
    row.p95 = quantile(row, buckets, 0.95);
    row.p99 = quantile(row, buckets, 0.99);
    rows.push(row);
  }
  return rows;
}

/** The duration that this share of a row's calls keeps to: the middle of its bucket. */
export function quantile({ calls, counts, max }, buckets, share) {
  if (calls === 1) return max;
  const rank = Math.floor(share * calls);
  let below = 0;
  for (const bucket of [...counts.keys()].sort((a, b) => a - b)) {
    below += counts.get(bucket);
    if (below > rank) return Math.min(middleOf(bucket, buckets), max);
  }
  return max;
}

function middleOf(bucket, buckets) {
  const next = buckets[bucket + 1] ?? buckets[bucket];
  return buckets[bucket] + Math.floor((next - buckets[bucket]) / 2);
}

/** Who called a name and whom it called, with times in the range: lists of [name, time]. */
export function neighbours(nodes, { total }, name) {
  const callers = new Map();
  const callees = new Map();
  const add = (map, key, time) => map.set(key, (map.get(key) ?? 0) + time);
  for (const [i, node] of nodes.entries()) {
    const parent = nodes[node.parent];
    if (!parent || total[i] === 0) continue;
    if (node.name === name) add(callers, parent.name, total[i]);
    if (parent.name === name && parent.parent >= 0) add(callees, node.name, total[i]);
  }
  const widest = (map) => [...map].sort((a, b) => b[1] - a[1]);
  return { callers: widest(callers), callees: widest(callees) };
}

/** Calls and time of each value of a context entry in the range, widest first. */
export function measureContext({ values }, { from, to }) {
  const rows = values.map(([value, ...cells]) => {
    const row = { value: value ?? othersName, isRest: value === null, calls: 0, total: 0 };
    for (let at = 0; at < cells.length; at += 3) {
      if (cells[at] < from || cells[at] >= to) continue;
      row.calls += cells[at + 1];
      row.total += cells[at + 2];
    }
    return row;
  });
  return rows
    .filter(({ calls }) => calls > 0)
    .sort((a, b) => a.isRest - b.isRest || b.total - a.total);
}

/** The bins of a counter that lie in the range, and what they come to. */
export function measureCounter({ cells }, { from, to }) {
  const bins = [];
  for (let at = 1; at < cells.length; at += 5) {
    if (cells[at] < from || cells[at] >= to) continue;
    const [bin, count, lowest, highest, last] = cells.slice(at, at + 5);
    bins.push({ bin, count, lowest, highest, last });
  }
  return {
    bins,
    count: bins.reduce((sum, { count }) => sum + count, 0),
    lowest: Math.min(...bins.map(({ lowest }) => lowest)),
    highest: Math.max(...bins.map(({ highest }) => highest)),
  };
}

/** Sums of time, CPU time and time with the lock in bins from..to-1. */
export function measureCells(cells, { from, to }) {
  const sums = { self: 0, cpu: 0, held: 0 };
  for (let at = 0; at < cells.length; at += 4) {
    if (cells[at] < from || cells[at] >= to) continue;
    sums.self += cells[at + 1];
    sums.cpu += cells[at + 2];
    sums.held += cells[at + 3];
  }
  return sums;
}

/** For each thread and bin the names that had time there: [[name, self], ...]. */
export function laneCells(nodes, threads, bins) {
  const lanes = Array.from({ length: threads }, () => Array.from({ length: bins }, () => new Map()));
  for (const { name, thread, cells } of nodes) {
    for (let at = 0; at < cells.length; at += 3) {
      const names = lanes[thread][cells[at]];
      if (cells[at + 2] > 0) names.set(name, (names.get(name) ?? 0) + cells[at + 2]);
    }
  }
  return lanes;
}
