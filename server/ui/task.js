// Follows a background "set" task: polls its status until it reports the
// end, showing the path in hand, and stops it on request.
import { acl } from './api.js';
import { describe } from './messages.js';

const POLL_MS = 400;

// The task reports the entry in hand, a new one every 500 entries of the
// walk, so each new path seen is at least 500 more entries done (polls may
// miss some: the count is a lower bound). Paths are share paths (see
// api.js).
const REPORT_EVERY = 500;

export function runTask(taskId, { box, progress, text, stopButton }) {
  return new Promise((resolve) => {
    let stopping = false;
    let done = false;
    let lastPath = null;
    let reports = 0;
    box.hidden = false;
    box.dataset.state = 'running';
    progress.removeAttribute('value');  // indeterminate: the walk's size is not known
    text.textContent = 'Starting…';
    stopButton.disabled = false;

    // The bar is full only when the work is: a cancelled or failed run
    // stops it empty, and the box says which in words and colour.
    const finish = (result, state) => {
      done = true;
      stopButton.disabled = true;
      stopButton.onclick = null;
      progress.max = 1;
      progress.value = state === 'finished' ? 1 : 0;
      box.dataset.state = state;
      resolve(result);
    };

    stopButton.onclick = async () => {
      stopping = true;
      stopButton.disabled = true;
      text.textContent = 'Cancelling…';
      try {
        await acl('stop', { task_id: taskId });
      } catch (e) {
        if (!done) text.textContent = `Cannot cancel: ${describe(e)}`;
      }
    };

    const poll = async () => {
      if (done) return;
      try {
        const data = await acl('status', { task_id: taskId });
        if (data && data.finished) {
          text.textContent = reports ? `Finished: every change was applied (at least ${(reports * REPORT_EVERY).toLocaleString('en')} entries).`
            : 'Finished: every change was applied.';
          finish({ ok: true }, 'finished');
          return;
        }
        if (data && data.applypath && data.applypath !== lastPath) {
          if (lastPath !== null) ++reports;
          lastPath = data.applypath;
        }
        if (!stopping) text.textContent = lastPath === null ? 'Working…' : progressText(lastPath, reports);
      } catch (e) {
        // A stopped task ends with the generic failure code.
        const cancelled = stopping && e.code === 6200;
        const upTo = reports ? ` (at least ${(reports * REPORT_EVERY).toLocaleString('en')} entries, up to ${lastPath})` : '';
        text.textContent = cancelled ? `Cancelled. What was already applied stays applied${upTo}.` : `Failed: ${describe(e)}`;
        finish({ ok: false, cancelled, code: e.code }, cancelled ? 'cancelled' : 'failed');
        return;
      }
      setTimeout(poll, POLL_MS);
    };
    poll();
  });
}

// "Working in <folder> (at least N entries done)": the folder of the entry
// in hand.
function progressText(path, reports) {
  const cut = path.lastIndexOf('/');
  const folder = reports && cut > 0 ? path.slice(0, cut) : path;
  const count = reports ? `at least ${(reports * REPORT_EVERY).toLocaleString('en')} entries done` : 'starting';
  return `Working in ${folder} (${count})`;
}
