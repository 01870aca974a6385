"""The names of published methods' arguments, which the published tree does not tell."""

_NAMES = {
    "cooperativeTaskManager.finishTaskByName": "name",
    "cooperativeTaskManager.process": "microseconds",
    "cooperativeTaskManager.setLoggingEnabled": "enabled",
    "instrument.controls.disable": "name",
    "instrument.controls.disableWithContextEntry": "name entry",
    "instrument.controls.enable": "name",
    "instrument.controls.enableWithContextEntry": "name entry",
    "instrument.controls.has": "name",
    "instrument.controls.isEnabled": "name",
    "instrument.controls.isEnabledWithContext": "name entry",
    "instrument.counter.getEventCount": "name",
    "instrument.counter.getEventCountForContext": "name context",
    "instrument.counter.getEventCountsByContext": "name",
    "instrument.counter.getEventCountsByContextEntry": "name",
    "instrument.counter.resetEventCount": "name",
    "instrument.instruments.startEvent": "name context",
    "instrument.instruments.stopEvent": "name context sourceId serialId",
    "instrument.recorder.getAllCompleteEventsTraceEventJsonWithFilter": "seconds",
    "instrument.recorder.getEventPoints": "name",
    "instrument.recorder.getEventPointsForContext": "name context",
    "instrument.recorder.getEventStats": "name",
    "instrument.recorder.getEventStatsByContext": "name",
    "instrument.recorder.getEventStatsByContextEntry": "name",
    "instrument.recorder.getEventStatsForContext": "name context",
    "instrument.recorder.getEvents": "name",
    "instrument.recorder.getEventsForContext": "name context",
    "instrument.testAPI_addSomethingToInstrumentation": "seconds",
    "productStats.logEventBeginTime": "name detail",
    "productStats.logEventEndTime": "name detail",
    "productStats.logEventTime": "name detail",
    "utils.getReleseFromXMLFile": "file",
    "utils.loadLibraries": "names",
    "utils.loadLibrary": "name",
    "utils.queueLoadLibrary": "name",
    "utils.queueSleepTask": "milliseconds",
}


def argument_names(method):
    """One for each input; by their order alone for a method that is not ours."""
    root, _, rest = method.__qualname__.partition(".")
    known = _NAMES.get(rest, "").split() if root == "performance" else []
    if len(known) == len(method.inputs):
        return known
    return [f"arg{number}" for number in range(1, len(method.inputs) + 1)]
