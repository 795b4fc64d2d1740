// Starts the page. When a cable is plugged in or an address changes, a browser drops the files that are on their way.
// It asks for a lost module again only after a reload.
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
    // The server does not answer at the moment.
  }
  setTimeout(again, kAgainMs);
}

import("./main.js").then(() => sessionStorage.removeItem("reloads"), again);
