// Event-triggered tasks in the grid. The list shows them with ids that are made up
// anew for every listing, so an operation on one first finds the event scheduler's
// own entry for it, by name and owner.

export const EVENT_API = 'ORVA.Core.EventScheduler';

// The user name of an entry's "owner" ({"UID": "name"}).
export function entryOwnerName(entry) {
  const owner = entry?.owner;
  if (!owner || typeof owner !== 'object') return '';
  const first = Object.values(owner)[0];
  return typeof first === 'string' ? first : '';
}

const sameEffect = (a, b) => a.event === b.event && a.script === b.script && a.enable === b.enable;

// Returns {entry} or {error: "missing" | "ambiguous"}. Several entries that match the
// item and would behave the same are interchangeable; the first one is taken.
export function matchEventEntry(item, entries) {
  if (!Array.isArray(entries)) return { error: 'missing' };
  let found = entries.filter((e) => e && e.task_name === item.name && entryOwnerName(e) === item.owner);
  if (found.length > 1) {
    const sameState = found.filter((e) => e.enable === item.enable);
    if (sameState.length > 0) found = sameState;
  }
  if (found.length === 0) return { error: 'missing' };
  if (found.length > 1 && !found.every((e) => sameEffect(e, found[0]))) return { error: 'ambiguous' };
  return { entry: found[0] };
}

// Parameters of the event scheduler's "set" that change only the enabled state.
export function eventEnableParams(entry, enable) {
  return {
    id: entry.id,
    task_name: entry.task_name,
    owner: entryOwnerName(entry),
    enable,
    event: entry.event,
    script: entry.script,
  };
}
