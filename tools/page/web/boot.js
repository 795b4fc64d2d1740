// Starts the page. A browser drops the files that are on their way when a cable is plugged in or an address changes, and
// asks for a module that did not arrive only after a reload.
const kReloads = 10;
const kAgainMs = 1000;

async function again() {
  const reloads = Number(sessionStorage.getItem("reloads") ?? 0);
  if (reloads >= kReloads) {
    return; // not the network's fault
  }
  try {
    if ((await fetch("/api/state")).ok) {
      sessionStorage.setItem("reloads", reloads + 1);
      location.reload();
      return;
    }
  } catch {
    // Not there at the moment.
  }
  setTimeout(again, kAgainMs);
}

import("./main.js").then(() => sessionStorage.removeItem("reloads"), again);
