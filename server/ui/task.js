// Follows a background "set" task: polls its status until it reports the
// end, showing the path in hand, and stops it on request.
import { acl } from './api.js';
import { describe } from './messages.js';

const POLL_MS = 400;

export function runTask(taskId, { box, progress, text, stopButton }) {
  return new Promise((resolve) => {
    let stopping = false;
    let done = false;
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
          text.textContent = 'Finished: every change was applied.';
          finish({ ok: true }, 'finished');
          return;
        }
        if (!stopping) text.textContent = data && data.applypath ? `Applying to ${data.applypath}` : 'Working…';
      } catch (e) {
        // A stopped task ends with the generic failure code.
        const cancelled = stopping && e.code === 6200;
        text.textContent = cancelled ? 'Cancelled. What was already applied stays applied.' : `Failed: ${describe(e)}`;
        finish({ ok: false, cancelled, code: e.code }, cancelled ? 'cancelled' : 'failed');
        return;
      }
      setTimeout(poll, POLL_MS);
    };
    poll();
  });
}
