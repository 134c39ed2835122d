// Where the states stand on the page. "Start" is the dot that the first state is entered from.
export const layout = {
  "width": 720, "height": 385, "box": [118, 42],
  "at": {
    "Start": [70, 36], "Uninitialized": [70, 120], "Initializing": [225, 120], "Disabled": [385, 120],
    "Enabling": [517, 45], "Enabled": [650, 120], "Disabling": [517, 195], "Recovering": [385, 250], "Error": [650, 250],
    "_Final_Statemachine": [36, 345], "Terminating": [175, 345], "AnyState": [385, 345], "FatalError": [650, 345]
  }
};
