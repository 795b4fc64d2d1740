import { banner, byId, setText } from "./base.js";
import { startCameras } from "./cameras.js";
import { startDetails } from "./details.js";
import { startPackage } from "./package.js";
import { startPlan } from "./plan.js";
import { startRun } from "./run.js";
import { checkConnection, connect, on, state } from "./server.js";

const kConnection = {
  connecting: ["Connecting …", ""],
  live: ["Connected", ""],
  lost: [
    "No connection",
    "No connection to kvtool. The page shows the last known state and tries to connect again. Upgrades under way do " +
      "not need the page.",
  ],
  stranger: ["No access", "kvtool was started again. Open the address that it has printed in its terminal."],
};

startPackage();
startCameras();
startDetails();
startPlan();
startRun();

on("connection", () => {
  const [word, explanation] = kConnection[state.connection];
  const place = byId("connection");
  place.dataset.state = state.connection;
  setText(place, word);
  banner("connection", explanation);
});
setInterval(checkConnection, 1000);
for (const event of ["visibilitychange", "pageshow", "online", "focus"]) {
  addEventListener(event, checkConnection);
}
connect();
