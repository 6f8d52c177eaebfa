// What each error code means, in words for the person at the screen.
const MESSAGES = {
  [-1]: 'The server cannot be reached.',
  // server
  100: 'The server could not complete the request.',
  101: 'The request was malformed.',
  102: 'This function is not available on the server.',
  103: 'This function is not available on the server.',
  104: 'This version of the function is not supported by the server.',
  105: 'The server could not read the request.',
  106: 'The request is too large for the server.',
  107: 'The request arrived too slowly and was cancelled. Please try again.',
  108: 'Too many connections from your address. Close other windows of this site and try again.',
  109: 'The request was malformed.',
  110: 'The request is nested too deeply to be handled.',
  119: 'Your session has ended. Please sign in again.',
  120: 'The request was refused because its security token was missing or wrong. Please sign in again.',
  150: 'Wrong account or password, or the account is disabled.',
  151: 'Too many failed sign-ins. Please wait a few minutes before trying again.',
  152: 'Many sign-ins are in progress. Please try again in a moment.',
  153: 'This account\'s directory cannot be reached, so it cannot sign in here.',
  160: 'The server failed while handling the request. Please try again.',
  161: 'The server is busy. Please try again later.',
  // folder listing
  600: 'This is not a valid folder path.',
  601: 'The shared folder does not exist.',
  602: 'You have no access to this shared folder.',
  603: 'The folder does not exist, or you may not open it.',
  604: 'This is not a folder.',
  605: 'The folder listing was asked for with a missing or wrong value.',
  606: 'The permissions of this folder do not let you list its contents.',
  607: 'You may not change the permissions of this item.',
  608: 'The permission rules could not be removed.',
  // permissions
  117: 'The progress of the task cannot be read.',
  402: 'The shared folder does not exist.',
  403: 'The request was not valid: a value or a rule is missing or wrong, or the path is outside the shared folders.',
  1415: 'The server ran out of memory while building the rules.',
  2617: 'The server ran out of memory.',
  3302: 'This shared folder does not support permission rules (they are off, or the folder is encrypted).',
  4203: 'The rules are not in the order of their inheritance levels.',
  6200: 'The operation failed.',
  6201: 'This item does not support permission rules, or they cannot be changed.',
  6202: 'Permission rules are not supported on this kind of file system.',
  6203: 'Permission rules are not supported on remote file systems.',
  6204: 'Permission rules are not supported on disc images.',
  6205: 'You may not read or change the permissions of this item.',
  6206: 'The path is not valid.',
  6207: 'The user or the folder does not exist.',
  6208: 'Your privileges on the shared folder could not be checked.',
  6209: 'Permission denied.',
  6211: 'The owner, or a user or group named in a rule, cannot be found.',
  6212: 'This file system does not support permission rules.',
  6213: 'You may not make this user or group the owner.',
  6214: 'The shared folder is read-only: only the permissions of its top folder can be changed.',
  6215: 'Too many rules: the item cannot hold that many.',
  6216: 'The permission rules could not be written.',
};

export function messageFor(code) {
  return MESSAGES[code] || `The operation failed (error ${code}).`;
}

export function describe(err) {
  if (err && typeof err.code === 'number') return messageFor(err.code);
  return String(err && err.message ? err.message : err);
}
