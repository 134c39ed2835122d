// Where the states stand on the page. "Start" is the dot that the first state is entered from.
export const layouts = {
  "wide": {
    "width": 720, "height": 385, "box": [118, 42],
    "at": {
      "Start": [70, 36], "Uninitialized": [70, 120], "Initializing": [225, 120], "Disabled": [385, 120],
      "Enabling": [517, 45], "Enabled": [650, 120], "Disabling": [517, 195], "Recovering": [385, 250], "Error": [650, 250],
      "_Final_Statemachine": [36, 345], "Terminating": [175, 345], "AnyState": [385, 345], "FatalError": [650, 345]
    }
  },
  "narrow": {
    "width": 360, "height": 470, "box": [104, 36],
    "at": {
      "Start": [60, 18], "Uninitialized": [60, 72], "Initializing": [60, 142], "Disabled": [60, 222],
      "Enabling": [180, 172], "Enabled": [300, 222], "Disabling": [180, 272], "Recovering": [60, 312], "Error": [300, 312],
      "AnyState": [180, 372], "FatalError": [300, 442], "Terminating": [60, 442], "_Final_Statemachine": [180, 442]
    }
  }
};
